# Installs the systemd units, naming the quorpkg binary under the prefix
# being installed to. Run by `cmake --install` (and so by cpack); the
# variables QUOR_UNIT_* and QUOR_BINDIR come from dist/CMakeLists.txt.
if(IS_ABSOLUTE "${QUOR_BINDIR}")
  set(QUORPKG_BINARY "${QUOR_BINDIR}/quorpkg")
else()
  set(QUORPKG_BINARY "${CMAKE_INSTALL_PREFIX}/${QUOR_BINDIR}/quorpkg")
endif()
file(GLOB units "${QUOR_UNIT_SOURCES}/*")
foreach(unit ${units})
  get_filename_component(name "${unit}" NAME)
  string(REGEX REPLACE "\\.in$" "" name "${name}")
  configure_file("${unit}" "${QUOR_UNIT_STAGING}/${name}" @ONLY)
  file(INSTALL "${QUOR_UNIT_STAGING}/${name}" DESTINATION "${CMAKE_INSTALL_PREFIX}/${QUOR_UNIT_DIR}"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endforeach()
