"""Names and set-up shared by the tests of the web server update."""

WORK_DIR = "update_norvak_nginx"
LIST = WORK_DIR + "/md5"
DOWNLOAD = WORK_DIR + "/nginx"
PROGRAM = "nginx/bin/nginx"
IDENTIFICATION = "nginx/md5"

VERSION_DIR = "1.20.1"
LIST_PATH = f"/nginx_new/x64/{VERSION_DIR}/md5"
PROGRAM_PATH = f"/nginx_new/x64/{VERSION_DIR}/nginx"
GET_LIST = f"GET {LIST_PATH}"
GET_PROGRAM = f"GET {PROGRAM_PATH}"

# Larger than one read, so that it arrives in several pieces.
NEW_PROGRAM = b"\x7fELF" + bytes(range(256)) * 300
NEW_LINE = b"the new build\n"
OLD_PROGRAM = b"\x7fELF of the older build"
OLD_LINE = b"the older build\n"

NOT_NEW = ["[NGINX]is not new version", "[NGINX] download nginx failed", ""]
UPDATED = ["[NGINX]new version is exist, download now", "[NGINX] download nginx success", ""]
REFUSED = ["[NGINX]new version is exist, download now", "[NGINX] download nginx failed", ""]


def publish_build(server, program=NEW_PROGRAM, line=NEW_LINE):
    """Publishes a program with its identification for VERSION_DIR and 64 bits."""
    server.publish({LIST_PATH[1:]: line, PROGRAM_PATH[1:]: program})


def install_build(host, program=OLD_PROGRAM, line=OLD_LINE):
    """Installs an executable program with its identification."""
    host.write(PROGRAM, program, mode=0o755)
    host.write(IDENTIFICATION, line)
    host.remember()
