"""Agent packages and the agent's configuration file."""

import io
import tarfile
import xml.etree.ElementTree
from xml.sax.saxutils import quoteattr

# The script of most packages in the tests: does nothing and succeeds.
DEFAULT_UPDATE_SCRIPT = "#!/bin/sh\nexit 0\n"

_CONFIG = """\
<?xml version="1.0" encoding="UTF-8"?>
<!-- settings of the agent -->
<norvak>
  <Process name='agent'>
    <Data>
{settings}
    </Data>
  </Process>
</norvak>
"""


def config_xml(settings):
    """A config.xml with @a settings: a dictionary, or pairs if a name occurs twice."""
    pairs = settings.items() if isinstance(settings, dict) else settings
    lines = [f"      <var name={quoteattr(name)} value={quoteattr(value)} note=\"kept\"/>"
             for name, value in pairs]
    return _CONFIG.format(settings="\n".join(lines)).encode()


def config_values(document):
    """The settings of the config.xml @a document as pairs, in document order."""
    root = xml.etree.ElementTree.fromstring(document)
    return [(var.get("name"), var.get("value")) for var in root.findall("./Process/Data/var")]


def package(files=None):
    """A tar archive of @a files (name to text or bytes); by default a script that succeeds.

    Nothing in it is executable: the updater sets the mode of the script.
    """
    archive = io.BytesIO()
    with tarfile.open(fileobj=archive, mode="w", format=tarfile.GNU_FORMAT) as tar:
        for name, content in (files or {"update": DEFAULT_UPDATE_SCRIPT}).items():
            data = content.encode() if isinstance(content, str) else content
            member = tarfile.TarInfo(name)
            member.size = len(data)
            member.mode = 0o644
            tar.addfile(member, io.BytesIO(data))
    return archive.getvalue()
