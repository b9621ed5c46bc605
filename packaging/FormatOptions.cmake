# Read by cpack once for each package format. `cpack -D NORVAK_PACKAGE=debug` makes the package with
# the debug symbols; `-D NORVAK_PACKAGE=md5` an rpm for SLES 11.
list(GET CPACK_INSTALL_CMAKE_PROJECTS 0 build_directory)
string(TOLOWER ${CPACK_GENERATOR} format)
set(components ${CPACK_PACKAGE_NAME} ${format})

set(CPACK_RPM_PACKAGE_RELEASE 1)
set(file_digests 8)  # SHA-256
if(NORVAK_PACKAGE STREQUAL md5)
  # rpm 4.4 knows no other digest.
  set(CPACK_RPM_PACKAGE_RELEASE 1.sles11)
  set(file_digests 1)
elseif(NORVAK_PACKAGE STREQUAL debug)
  set(components debug)
  set(CPACK_STRIP_FILES OFF)
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Debug symbols of ${CPACK_PACKAGE_NAME}")
  set(CPACK_PACKAGE_DESCRIPTION "Debuggers find these files without configuration.")
  set(CPACK_DEBIAN_PACKAGE_NAME ${CPACK_PACKAGE_NAME}-dbgsym)
  set(CPACK_DEBIAN_PACKAGE_SECTION debug)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "${CPACK_PACKAGE_NAME} (= ${CPACK_PACKAGE_VERSION})")
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS)
  set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA)
  set(CPACK_RPM_PACKAGE_NAME ${CPACK_PACKAGE_NAME}-debuginfo)
  set(CPACK_RPM_PACKAGE_AUTOREQ OFF)
  set(CPACK_RPM_USER_FILELIST)
  foreach(moment IN ITEMS POST_INSTALL PRE_UNINSTALL POST_UNINSTALL)
    set(CPACK_RPM_${moment}_SCRIPT_FILE)
  endforeach()
endif()
set(CPACK_RPM_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")

set(CPACK_INSTALL_CMAKE_PROJECTS)
foreach(component IN LISTS components)
  list(APPEND CPACK_INSTALL_CMAKE_PROJECTS ${build_directory} norvak_update ${component} /)
endforeach()

# The same bytes on any machine at any time, and the same programs as in the .deb: all that rpmbuild
# does to the files is to set their times. Links by build id are not needed: the debug symbols are
# stored under it.
set(CPACK_RPM_SPEC_MORE_DEFINE "
%define __os_install_post find %{buildroot} -exec touch --no-dereference --date=@$SOURCE_DATE_EPOCH {} +
%define _binary_filedigest_algorithm ${file_digests}
%define _build_id_links none
%define _buildhost packages.invalid
%define use_source_date_epoch_as_buildtime 1
%define packager ${CPACK_PACKAGE_CONTACT}")
