"""The Debian package: what it holds, what its installation does, what removal and purge leave.

It is installed in a copy of this system that is gone with the test: an overlay in a mount namespace
of its own, for which the test needs to be root.
"""

from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path

import pytest

from harness import newcomer, privileges
from harness.packages import EPOCH
from harness.privileges import ENTER_COPY
from harness.targets import Target
from harness.waiting import TIMEOUT

ROOT = Path(__file__).resolve().parents[3]

COPY = r"""
set -eu
copy=$1 package=$2 script=$3
""" + ENTER_COPY + r"""
# Nothing of this system's service manager.
mount -t tmpfs none "$root/run"
# An index of all of its manual pages, which would be made anew each time.
rm -f "$root/var/lib/man-db/auto-update"
cp "$package" "$root/kova-mcp.deb"
exec chroot "$root" sh -euc "$script"
"""


@pytest.fixture
def in_a_copy(tmp_path: Path, debian_package: Path):
    """`in_a_copy(script)` runs a script as root of a copy of this system and returns what it says;
    /kova-mcp.deb is there."""
    privileges.need("a copy of this system")

    def run(script: str) -> str:
        copy = tmp_path / "copy"
        copy.mkdir()
        done = subprocess.run(
            ["unshare", "--mount", "--pid", "--fork", "sh", "-c", COPY, "sh", str(copy),
             str(debian_package), script],
            capture_output=True, text=True, timeout=4 * TIMEOUT, check=False,
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8",
                 "DEBIAN_FRONTEND": "noninteractive"})
        assert done.returncode == 0, done.stdout + done.stderr
        return done.stdout

    return run


def test_what_an_administrator_finds(in_a_copy) -> None:
    said = in_a_copy("""
        dpkg -i /kova-mcp.deb >/dev/null 2>&1
        dpkg --verify kova-mcp
        stat -c '%n %A %U %G' /etc/kova-mcp /var/lib/kova-mcp /var/log/kova-mcp
        getent passwd kova-mcp | cut -d: -f1,6,7
        for page in kova-mcp kova-admin kova-mcp-policy; do man -w $page >/dev/null; done
        zsh -fc 'autoload -U compinit; compinit -u -D; print $_comps[kova-admin] $_comps[kova-mcp]'
        kova-admin --version
        kova-mcp --check-policy | cut -d' ' -f1-3
        """).splitlines()
    assert said == ["/etc/kova-mcp drwxr-x--- root kova-mcp",
                    "/var/lib/kova-mcp drwxr-x--- kova-mcp kova-mcp",
                    "/var/log/kova-mcp drwxr-x--- kova-mcp kova-mcp",
                    "kova-mcp:/var/lib/kova-mcp:/usr/sbin/nologin",
                    "_kova-admin _kova-mcp", said[5],
                    "MCP_CONFIG_OK policy=default configured=no"]
    assert said[5].startswith("kova-admin ")


def test_it_starts_nothing(in_a_copy) -> None:
    """Nothing runs, nothing is enabled, no policy of the system was asked for a start."""
    said = in_a_copy("""
        printf '#!/bin/sh\\necho "$@" >> /asked\\n' > /usr/sbin/policy-rc.d
        chmod 755 /usr/sbin/policy-rc.d
        dpkg -i /kova-mcp.deb >/dev/null 2>&1
        for process in /proc/[0-9]*; do
            case $(readlink $process/exe) in */kova-*) echo runs $process ;; esac
        done
        find /etc/systemd /run -name '*kova*'
        [ ! -e /asked ] || cat /asked
        """)
    assert said == ""


def test_what_is_asked_of_the_service_manager(in_a_copy) -> None:
    """Where one runs: nothing is started by the installation, running listeners go over to a new
    version, and end before the program goes."""
    said = in_a_copy("""
        mkdir -p /run/systemd/system
        rm -f /usr/sbin/policy-rc.d
        printf '#!/bin/sh\\necho "$@" >> /asked\\n' > /usr/bin/systemctl
        for step in -i -i -r -P; do
            argument=kova-mcp
            [ $step != -i ] || argument=/kova-mcp.deb
            echo "dpkg $step" >> /asked
            dpkg $step $argument >/dev/null 2>&1
        done
        cat /asked
        """).splitlines()
    reload, running = "--system daemon-reload", "kova-mcp-http@*.service"
    assert said == ["dpkg -i", reload, "dpkg -i", reload, reload, f"try-restart {running}",
                    "dpkg -r", f"stop {running}", reload, "dpkg -P", reload]


def test_the_unit_without_the_package(in_a_copy) -> None:
    """By the commands of deploy/README.md, for what docs/install.md puts into /opt."""
    text = (ROOT / "deploy" / "README.md").read_text("utf-8")
    [commands] = re.findall(r"^Without the package.*?^```\n(.*?)^```$", text,
                            re.MULTILINE | re.DOTALL)
    said = in_a_copy(r"""
        dpkg-deb -x /kova-mcp.deb /files
        cd /files/usr/share/doc/kova-mcp/deploy
        systemctl() { echo "systemctl $*"; }  # No service manager runs in the copy.
        """ + commands + r"""
        stat -c '%n %A %U %G' /etc/kova-mcp /var/lib/kova-mcp /var/log/kova-mcp
        getent passwd kova-mcp | cut -d: -f1,6,7
        sed -n 's/^Exec[A-Za-z]*=\([^ ]*\).*/\1/p' /etc/systemd/system/kova-mcp-http@.service
        """).splitlines()
    [server] = {line.split()[-1] + "kova-mcp" for line in
                newcomer.blocks("Other Linux", "sh")[0].splitlines() if "libkovadll" in line}
    assert said == ["systemctl daemon-reload",
                    "/etc/kova-mcp drwxr-x--- root kova-mcp",
                    "/var/lib/kova-mcp drwxr-x--- kova-mcp kova-mcp",
                    "/var/log/kova-mcp drwxr-x--- kova-mcp kova-mcp",
                    "kova-mcp:/var/lib/kova-mcp:/usr/sbin/nologin", server, server]


MADE_BY_THE_ADMINISTRATOR = """
    dpkg -i /kova-mcp.deb >/dev/null 2>&1
    echo secret > /etc/kova-mcp/sales.env
    echo policy > /etc/kova-mcp/policy.json
    mkdir -p /var/log/kova-mcp/sales /var/lib/kova-mcp/sales/approvals
    echo record > /var/log/kova-mcp/sales/audit.jsonl
    echo marker > /var/lib/kova-mcp/sales/approvals/marker
    echo '# mine' >> /etc/logrotate.d/kova-mcp
    mkdir -p /etc/systemd/system/kova-mcp-http@sales.service.d
    echo mine > /etc/systemd/system/kova-mcp-http@sales.service.d/override.conf
    mkdir -p /etc/systemd/system/multi-user.target.wants
    ln -s /lib/systemd/system/kova-mcp-http@.service \
        /etc/systemd/system/multi-user.target.wants/kova-mcp-http@sales.service
    """
LEFT = """
    find /etc/kova-mcp /var/log/kova-mcp /var/lib/kova-mcp /etc/logrotate.d/kova-mcp \
        /etc/systemd/system/kova-mcp* /etc/systemd/system/*.wants/kova-mcp* \
        /usr/bin/kova-* /usr/lib/*/kova-mcp* /usr/share/doc/kova-mcp ! -type d 2>/dev/null || true
    """
WRITTEN = {"/etc/kova-mcp/sales.env", "/etc/kova-mcp/policy.json", "/etc/logrotate.d/kova-mcp",
           "/var/log/kova-mcp/sales/audit.jsonl", "/var/lib/kova-mcp/sales/approvals/marker",
           "/etc/systemd/system/kova-mcp-http@sales.service.d/override.conf",
           "/etc/systemd/system/multi-user.target.wants/kova-mcp-http@sales.service"}


def test_removal_keeps_what_was_written(in_a_copy) -> None:
    said = in_a_copy(MADE_BY_THE_ADMINISTRATOR + "dpkg -r kova-mcp >/dev/null 2>&1" + LEFT)
    assert set(said.split()) == WRITTEN


def test_purge_removes_what_was_written(in_a_copy) -> None:
    said = in_a_copy(MADE_BY_THE_ADMINISTRATOR + "dpkg -r kova-mcp >/dev/null 2>&1\n"
                     "dpkg -P kova-mcp >/dev/null 2>&1" + LEFT)
    assert said == ""


def test_an_upgrade_keeps_what_was_written(in_a_copy) -> None:
    said = in_a_copy(MADE_BY_THE_ADMINISTRATOR + """
        dpkg -i /kova-mcp.deb >/dev/null 2>&1
        cat /etc/kova-mcp/sales.env; tail -1 /etc/logrotate.d/kova-mcp
        """ + LEFT).splitlines()
    assert said[:2] == ["secret", "# mine"]
    assert WRITTEN <= set(said)


def test_the_guide_names_the_oldest_glibc_that_will_do(debian_package: Path) -> None:
    depends = subprocess.run(["dpkg-deb", "-f", str(debian_package), "Depends"], text=True,
                             capture_output=True, timeout=TIMEOUT, check=True).stdout
    [version] = re.findall(r"libc6 \(>= ([0-9.]+)\)", depends)
    guide = (ROOT / "docs" / "install.md").read_text("utf-8")
    assert re.findall(r"glibc ([0-9.]+) or newer", guide) == [version]


def test_lintian_has_nothing_to_say(debian_package: Path) -> None:
    done = subprocess.run(["lintian", "--tag-display-limit", "0", "--pedantic", "--allow-root",
                           "--fail-on", "error,warning", str(debian_package)],
                          capture_output=True, text=True, timeout=4 * TIMEOUT, check=False)
    assert done.returncode == 0, done.stdout + done.stderr


def test_the_umask_of_the_builder_changes_no_rights(target: Target, debian_package: Path,
                                                    tmp_path: Path) -> None:
    # What takes long, and has nothing to do with the rights, is left out.
    subprocess.run(["cpack", "-G", "DEB", "-B", str(tmp_path), "-D",
                    "CPACK_DEBIAN_COMPRESSION_TYPE=gzip", "-D",
                    "CPACK_DEBIAN_PACKAGE_SHLIBDEPS=OFF"], cwd=target.build, umask=0o077,
                   env={**os.environ, "SOURCE_DATE_EPOCH": EPOCH}, check=True,
                   capture_output=True, timeout=4 * TIMEOUT)
    [other] = tmp_path.glob("*.deb")
    assert listed(other) == listed(debian_package)


def listed(package: Path) -> str:
    return subprocess.run(["dpkg-deb", "-c", str(package)], capture_output=True, text=True,
                          timeout=TIMEOUT, check=True).stdout


def test_the_files_are_those_of_the_tree(debian_package: Path, tmp_path: Path) -> None:
    subprocess.run(["dpkg-deb", "-x", str(debian_package), str(tmp_path)], check=True,
                   timeout=TIMEOUT)
    for source, place in {
            "deploy/kova-mcp-http@.service": "usr/lib/systemd/system/kova-mcp-http@.service",
            "deploy/kova-mcp.sysusers": "usr/lib/sysusers.d/kova-mcp.conf",
            "deploy/kova-mcp.tmpfiles": "usr/lib/tmpfiles.d/kova-mcp.conf",
            "deploy/kova-mcp.logrotate": "etc/logrotate.d/kova-mcp",
            "deploy/lnav/kova_mcp_audit.json": "etc/lnav/formats/kova_mcp/kova_mcp_audit.json",
            "completions/kova-admin.bash": "usr/share/bash-completion/completions/kova-admin",
            "completions/_kova-admin": "usr/share/zsh/vendor-completions/_kova-admin"}.items():
        assert (tmp_path / place).read_bytes() == (ROOT / source).read_bytes()
