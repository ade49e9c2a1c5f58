"""The packages whose files a build has read, which the bills of materials list, of both systems."""

from __future__ import annotations

import bill_of_materials
from harness.targets import Target


def test_the_packages_of_the_server(target: Target) -> None:
    found = bill_of_materials.packages_of_build(target.build, [target.executable.name])
    names = {name.partition(":")[0] for name in found}
    if target.windows:
        assert names >= {"mingw-w64-x86-64-dev", "g++-mingw-w64-x86-64-posix"}
    else:
        assert names >= {"libc6-dev", "libstdc++-12-dev", "libsodium-dev"}
