"""Names and set-up shared by the tests of the rule update."""

import hashlib

from .kernel import QUORIN, TESSEL, installed

WORK_DIR = "update_norvak_rule"
LIST = WORK_DIR + "/rule_md5"
DOWNLOAD = WORK_DIR + "/rule"
CURRENT = "template/system_rule.dat"
RULES = "template/norvak_default_rule.xml"

LIST_PATH = "/tarn_rule/md5"
RULES_PATH = "/tarn_rule/norvak_default_rule.xml"
GET_LIST = f"GET {LIST_PATH}"
GET_RULES = f"GET {RULES_PATH}"

# Larger than one read, so that it arrives in several pieces.
NEW_RULES = b"<rules>\n" + b"  <rule/>\r\n" * 5000 + b"</rules>\n"
OLD_RULES = b"<rules/>\n"

UPDATED = ["download_tarn_rules_file: check download rule MD5 success",
           "[RULES] update tarn rules success", ""]
REFUSED = ["download_tarn_rules_file: check download rule MD5 false",
           "[RULES] update tarn rules failed", ""]
NOTHING_TO_DO = ["[RULES] don't need to update", ""]


def digest(content=NEW_RULES):
    return hashlib.md5(content).hexdigest()


def publish_rules(server, content=NEW_RULES, published=None):
    """Publishes a rule file and the text that announces it, by default its digest."""
    if published is None:
        published = f"{digest(content)}\n".encode()
    server.publish({LIST_PATH[1:]: published, RULES_PATH[1:]: content})


def install_rules(host, content=OLD_RULES):
    """Installs both engine modules and a rule file with its digest."""
    for name in (TESSEL, QUORIN):
        host.write(installed(name), "")
    host.write(RULES, content)
    host.write(CURRENT, f"{digest(content)}\n")
    host.remember()
