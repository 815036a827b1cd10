# jsoncpp as the target quor_jsoncpp: Debian's shared library, or, with
# -DQUOR_JSONCPP_SOURCE=<tree> (scripts/fetch-jsoncpp.sh fetches Debian's
# source package of the same release), a static library built from that
# source together with a statically linked C++ runtime. Debian ships jsoncpp
# only shared, and it pulls in the shared libstdc++: relocating the two was
# most of what a short command like `version` spent before main, beyond what
# /bin/true spends. Sanitizer and fuzz builds keep the shared runtime, which
# their runtimes expect.
set(QUOR_JSONCPP_SOURCE "" CACHE PATH
    "jsoncpp source tree to link statically, with the C++ runtime (scripts/fetch-jsoncpp.sh)")

if(QUOR_JSONCPP_SOURCE)
  file(GLOB QUOR_JSONCPP_SOURCES CONFIGURE_DEPENDS ${QUOR_JSONCPP_SOURCE}/src/lib_json/*.cpp)
  if(NOT QUOR_JSONCPP_SOURCES)
    message(FATAL_ERROR "no jsoncpp sources in ${QUOR_JSONCPP_SOURCE}/src/lib_json")
  endif()
  add_library(quor_jsoncpp STATIC ${QUOR_JSONCPP_SOURCES})
  # Before the system's copy of the same headers.
  target_include_directories(quor_jsoncpp BEFORE PUBLIC ${QUOR_JSONCPP_SOURCE}/include)
  target_compile_options(quor_jsoncpp PRIVATE -w)  # not our code to warn about
  set_target_properties(quor_jsoncpp PROPERTIES POSITION_INDEPENDENT_CODE ON)
  # For the tool (quor_static_runtime): zpk also loads libxml2 and ICU,
  # which bring the shared libstdc++ anyway.
  if(NOT QUOR_SANITIZE AND NOT QUOR_FUZZ)
    set(QUOR_STATIC_RUNTIME ON)
  endif()
  message(STATUS "jsoncpp: static, from ${QUOR_JSONCPP_SOURCE}")
else()
  pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
  add_library(quor_jsoncpp INTERFACE)
  target_link_libraries(quor_jsoncpp INTERFACE PkgConfig::JSONCPP)
endif()

# Links `target` with the static C++ runtime when jsoncpp is static.
function(quor_static_runtime target)
  if(QUOR_STATIC_RUNTIME)
    target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc)
  endif()
endfunction()
