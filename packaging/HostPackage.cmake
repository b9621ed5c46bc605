# The package norvak-update, for hosts: a .deb and an .rpm with the same contents.
set(package norvak-update)
set(programs norvak_update)
set(linked_in libc6-dev libgcc-10-dev libstdc++-10-dev libpugixml-dev)
if(TARGET norvak_host)
  list(APPEND programs norvak_host)
  list(APPEND linked_in libcli11-dev nlohmann-json3-dev zlib1g-dev)
endif()
if(TARGET norvak_recover)
  list(APPEND programs norvak_recover)
endif()
include(Package.cmake)
norvak_install_notices(${linked_in})

# CPack treats each file with an absolute destination as a configuration file of the rpm, so the
# other destinations are relative to /usr.

# Configuration files, which upgrades and removals leave as the administrator has them.
set(configuration_files)
foreach(directory_and_target IN ITEMS etc:/etc cron:/etc/cron.d)
  string(REPLACE ":" ";" directory_and_target ${directory_and_target})
  list(GET directory_and_target 0 directory)
  list(GET directory_and_target 1 target)
  file(GLOB files CONFIGURE_DEPENDS ${directory}/*)
  install(FILES ${files} DESTINATION ${target} COMPONENT ${package})
  foreach(file IN LISTS files)
    get_filename_component(name ${file} NAME)
    list(APPEND configuration_files ${target}/${name})
  endforeach()
endforeach()

# The runner and what else the units and cron jobs call.
file(GLOB scripts CONFIGURE_DEPENDS libexec/*)
install(PROGRAMS ${scripts} DESTINATION lib/norvak-update COMPONENT ${package})
file(GLOB data CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/deploy/prometheus/*.rules.yml)
install(FILES ${data} DESTINATION share/norvak-update COMPONENT ${package})
install(DIRECTORY DESTINATION /var/lib/norvak-update COMPONENT ${package})  # state, lock

# Older releases of Debian and Ubuntu read units only below /lib, the others only below /usr/lib.
file(GLOB units CONFIGURE_DEPENDS systemd/*.service systemd/*.timer)
foreach(format_and_directory IN ITEMS deb:/lib/systemd/system rpm:lib/systemd/system)
  string(REPLACE ":" ";" format_and_directory ${format_and_directory})
  list(GET format_and_directory 0 format)
  list(GET format_and_directory 1 directory)
  install(FILES ${units} DESTINATION ${directory} COMPONENT ${format})
  install(DIRECTORY systemd/multi-user.target.wants DESTINATION ${directory} COMPONENT ${format})
endforeach()

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
  "Fetches new agent software, kernel modules, protection rules and web server
programs from the agent's update server, verifies what has a published
digest, installs it, and restarts or stops the agent where needed.
Nothing runs until an administrator enables it.")

# The agent's scope is asked for on the system bus. rpm learned such weak dependencies too late.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS dbus)

set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA)
foreach(script IN ITEMS postinst prerm postrm)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/maintainer/${script})
endforeach()
if(configuration_files)
  list(JOIN configuration_files "\n" lines)
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/conffiles "${lines}\n")
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/conffiles)
endif()

set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_GROUP System/Management)
set(CPACK_RPM_PACKAGE_LICENSE "All rights reserved")
set(CPACK_RPM_PACKAGE_AUTOREQ ON)
set(CPACK_RPM_PACKAGE_AUTOPROV ON)  # a package with configuration files requires config() of itself
set(CPACK_RPM_COMPRESSION_TYPE gzip)
set(CPACK_RPM_POST_INSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/maintainer/postinst)
set(CPACK_RPM_PRE_UNINSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/maintainer/prerm)
set(CPACK_RPM_POST_UNINSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/maintainer/postrm)
set(CPACK_RPM_USER_FILELIST ${configuration_files})
list(TRANSFORM CPACK_RPM_USER_FILELIST PREPEND "%config(noreplace) ")
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION  # directories of the system
  /etc /etc/cron.d /usr/lib/debug /usr/lib/debug/.build-id /usr/lib/systemd /usr/lib/systemd/system
  /usr/lib/systemd/system/multi-user.target.wants
  /usr/sbin /usr/share/bash-completion /usr/share/bash-completion/completions /usr/share/man
  /usr/share/man/man5 /usr/share/man/man8 /usr/share/zsh /usr/share/zsh/vendor-completions /var
  /var/lib)

set(CPACK_GENERATOR DEB RPM)
include(CPack)
