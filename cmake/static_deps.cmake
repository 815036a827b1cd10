# Links the libraries every command loads (Boost, libarchive and its
# compressors) statically where Debian ships the .a: relocating their shared
# objects was most of a short command's time, and a static archive brings
# only the members we call (libarchive's tar and gzip/zstd support, without
# libxml2 and ICU). libcrypto is neither: it is loaded by the commands that
# hash or verify (crypto_api.h), as libcurl by those that download.
# Include before find_package(Boost/LibArchive); call
# quor_static_libarchive() after find_package(LibArchive).
option(QUOR_STATIC_DEPS "Link Boost and libarchive statically" ON)

if(QUOR_STATIC_DEPS)
  set(Boost_USE_STATIC_LIBS ON)
endif()

function(quor_static_libarchive)
  if(NOT QUOR_STATIC_DEPS)
    return()
  endif()
  find_library(QUOR_LIBARCHIVE_A NAMES libarchive.a)
  set(deps)
  # What libarchive.a may call (pkg-config --static libarchive); each .a is
  # taken where there is one, else the shared library. libxml2 stays shared:
  # its .a would need ICU's, and only zpk's archive writer pulls it in. zlib
  # and bzip2 stay shared too: Debian policy (4.13) forbids embedded copies
  # of them, which lintian reports as errors, and every system has them.
  set(shared xml2 z bz2)
  foreach(name nettle acl lzma zstd lz4 bz2 z xml2)
    find_library(QUOR_${name}_A NAMES lib${name}.a)
    find_library(QUOR_${name}_SO NAMES ${name})
    if(QUOR_${name}_A AND NOT name IN_LIST shared)
      list(APPEND deps ${QUOR_${name}_A})
    elseif(QUOR_${name}_SO)
      list(APPEND deps ${QUOR_${name}_SO})
    else()
      message(FATAL_ERROR "libarchive.a needs lib${name}; set -DQUOR_STATIC_DEPS=OFF")
    endif()
  endforeach()
  if(NOT QUOR_LIBARCHIVE_A)
    message(FATAL_ERROR "no libarchive.a; set -DQUOR_STATIC_DEPS=OFF")
  endif()
  set_target_properties(LibArchive::LibArchive PROPERTIES
    IMPORTED_LOCATION ${QUOR_LIBARCHIVE_A}
    INTERFACE_LINK_LIBRARIES "${deps}")
endfunction()
