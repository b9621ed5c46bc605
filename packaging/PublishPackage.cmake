# The package norvak-publish, for update servers: a .deb for current Debian and Ubuntu.
set(package norvak-publish)
set(programs norvak_publish)
include(Package.cmake)
norvak_install_notices(libcli11-dev nlohmann-json3-dev libpugixml-dev)

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Publishes updates of the Norvak host-security agent")
set(CPACK_PACKAGE_DESCRIPTION
  "Checks, publishes and withdraws the files that norvak_update fetches
from an update server.")
set(CPACK_GENERATOR DEB)
include(CPack)
