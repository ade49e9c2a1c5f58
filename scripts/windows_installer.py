"""The Windows installer (MSI), made by wixl from the files of the Windows archive."""

from __future__ import annotations

import subprocess
import uuid
from pathlib import Path
from xml.sax.saxutils import quoteattr

UPGRADE_CODE = "8F3C7B52-6D0E-4C55-9B1E-2A7D5F40C6E3"
"""The same for every version: Windows knows by it what an installation replaces."""
NOBODY = "kova-mcp maintainers"
"""In the place of a publisher, whom an installer has to name."""


def identifier(name: str) -> str:
    return "i" + uuid.uuid5(uuid.UUID(UPGRADE_CODE), name).hex


def guid(name: str) -> str:
    return str(uuid.uuid5(uuid.UUID(UPGRADE_CODE), name)).upper()


def folder_of(folder: Path, top: Path, components: list[str]) -> str:
    """The elements of a folder's files and folders; each file is a component of its own."""
    made = ""
    for path in sorted(folder.iterdir()):
        name = path.relative_to(top).as_posix()
        if path.is_dir():
            made += (f"<Directory Id='{identifier(name)}' Name={quoteattr(path.name)}>"
                     f"{folder_of(path, top, components)}</Directory>\n")
            continue
        component = identifier("component " + name)
        components.append(component)
        made += (f"<Component Id='{component}' Guid='{guid(name)}' Win64='yes'>"
                 f"<File Id='{identifier(name)}' Name={quoteattr(path.name)} "
                 f"Source={quoteattr(name)} KeyPath='yes'/></Component>\n")
    return made


def source(top: Path, version: str, publisher: str) -> str:
    components: list[str] = []
    files = folder_of(top, top, components)
    references = "".join(f"<ComponentRef Id='{one}'/>\n" for one in components)
    return f"""<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
<Product Id="{guid('product ' + version)}" Name="kova-mcp" Language="1033" Version="{version}"
  Manufacturer={quoteattr(publisher)} UpgradeCode="{UPGRADE_CODE}">
<Package InstallerVersion="500" Compressed="yes" InstallScope="perMachine"/>
<MajorUpgrade DowngradeErrorMessage="A newer version is installed."/>
<Media Id="1" Cabinet="kova.cab" EmbedCab="yes"/>
<Directory Id="TARGETDIR" Name="SourceDir"><Directory Id="ProgramFiles64Folder">
<Directory Id="INSTALLDIR" Name="kova-mcp">
{files}</Directory></Directory></Directory>
<Feature Id="Main" Level="1">
{references}</Feature>
</Product>
</Wix>
"""


def write_installer(path: Path, top: Path, version: str, work: Path,
                    publisher: str = "") -> None:
    """`top` is the unpacked Windows archive; every path is absolute."""
    text = work / "kova-mcp.wxs"
    text.write_text(source(top, version, publisher or NOBODY), encoding="utf-8")
    subprocess.run(["wixl", "-a", "x64", "-o", str(path), str(text)], cwd=top, check=True)
