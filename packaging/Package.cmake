# What both packages have in common. Expects `package`, the package's name, and `programs`, the
# targets that it contains.
set(CPACK_PACKAGE_NAME ${package})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The norvak_update developers <norvak-update@packages.invalid>")
set(CPACK_PACKAGE_VENDOR "The norvak_update developers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
# Read by cpack for each package format.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_SOURCE_DIR}/FormatOptions.cmake)

# Formats that the oldest package managers can read.
set(CPACK_DEBIAN_COMPRESSION_TYPE gzip)
set(CPACK_DEBIAN_ARCHIVE_TYPE gnutar)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# Debug symbols are a package of their own, made from the component "debug". Debuggers find them by
# the build id, which stripping does not change.
foreach(program IN LISTS programs)
  install(CODE "
    set(program $<TARGET_FILE:${program}>)
    include(${CMAKE_CURRENT_SOURCE_DIR}/SplitDebug.cmake)" COMPONENT debug)
endforeach()

# Debian's tools read a changelog of this form. Its one entry refers to CHANGELOG.md.
string(TIMESTAMP release_date "%a, %d %b %Y %H:%M:%S +0000" UTC)  # of SOURCE_DATE_EPOCH, if set
configure_file(deb/changelog.in changelog @ONLY)
set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/${package})
norvak_install_compressed(${CMAKE_CURRENT_BINARY_DIR}/changelog changelog ${doc_dir} ${package})
norvak_install_compressed(${PROJECT_SOURCE_DIR}/CHANGELOG.md NEWS ${doc_dir} ${package})

# The copyright file, with the terms of each Debian package in @a ARGN, whose code is linked in.
function(norvak_install_notices)
  file(READ copyright notices)
  foreach(debian_package IN LISTS ARGN)
    set(terms_file /usr/share/doc/${debian_package}/copyright)
    if(NOT EXISTS ${terms_file})
      message(FATAL_ERROR "${terms_file} is missing: package ${debian_package} is not installed.")
    endif()
    file(READ ${terms_file} terms)
    string(APPEND notices "\n\n--- From ${debian_package} ---\n\n${terms}")
  endforeach()
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/copyright "${notices}")
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/copyright DESTINATION ${doc_dir} COMPONENT ${package})
  install(FILES deb/${package}.overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
    RENAME ${package} COMPONENT deb)
endfunction()
