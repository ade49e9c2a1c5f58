#!/usr/bin/env python3
"""Checks who includes whom, and that platform code stays in its folder.

Usage: check_layers.py [ROOT]

Prints one line per violation and ends with 1 when there is one:
- a folder includes only what ARROWS lists, and every arrow and module that the tables name
  exists;
- no circle of modules anywhere, and within the folders of ORDER only downward. A module is a
  header with its source; the sources of platform/posix and platform/win32 belong to the header
  above them;
- a file includes what it names: the headers of OWNERS, and the project's own headers of the types
  that they define. A source also has what its own header includes;
- system headers and conditions on the platform stand in src/platform alone.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else __file__).resolve()
if len(sys.argv) < 2:
    ROOT = ROOT.parent.parent

# What each folder of src/ includes, beside itself.
ARROWS = {
    "base": set(),
    "platform": {"base"},
    "json": {"platform", "base"},
    "policy": {"json", "platform", "base"},
    "audit": {"policy", "platform", "base"},
    "approval": {"policy", "platform", "base"},
    "db": {"platform", "base"},
    "tools": {"approval", "audit", "db", "policy", "json", "platform", "base"},
    "mcp": {"tools", "policy", "json", "base"},
    "http": {"platform", "base"},
    "app": {"mcp", "http", "tools", "approval", "audit", "db", "policy", "json", "platform",
            "base"},
}
# An arrow that only some modules of the folder may use.
ONLY = {("json", "platform"): {"reply", "output_lock"}}
# The order of the modules within a folder, the lowest first; "*" is all that are not named.
# A module includes none of its own row or above it.
ORDER = {
    "policy": [{"names", "sql_words"}, {"policy"}, {"predicates", "policy_file", "quick_select"},
               {"*"}],
    "tools": [{"tool"}, {"tool_args"}, {"ai_collection"}, {"*"}, {"tool_table"},
              {"tool_call"}],
}
# What stands beside src/ and may include parts of it.
BESIDE = {"sample": ("base/", "platform/", "db/kova_api.h"), "admin": ("",)}

INCLUDE = re.compile(r'^\s*#\s*include\s+(["<])([^">]+)[">]', re.MULTILINE)
PLATFORM_CONDITION = re.compile(
    r"^\s*#\s*(?:if|ifdef|ifndef|elif)\b.*\b"
    r"(_WIN32|_WIN64|WIN32|__linux__|__unix__|__MINGW32__|__MINGW64__|__APPLE__|_MSC_VER)\b",
    re.MULTILINE,
)
PLATFORM_HEADER = re.compile(
    r"(windows\.h|winsock2\.h|ws2tcpip\.h|bcrypt\.h|io\.h|unistd\.h|fcntl\.h|poll\.h|pthread\.h|"
    r"dlfcn\.h|netdb\.h|sched\.h|sys/.+)"
)
# Names of the standard library, and the headers of which one must be included for them.
OWNERS = [
    (re.compile(rf"\bstd::(?:{names})\b"), headers.split())
    for names, headers in (
        ("string_view", "string_view string"),
        ("string|to_string|stoi|stoul|stoull|getline", "string"),
        ("vector", "vector"),
        ("array", "array"),
        ("map|multimap", "map"),
        ("set|multiset", "set"),
        ("unordered_map", "unordered_map"),
        ("unordered_set", "unordered_set"),
        ("optional|nullopt", "optional"),
        ("variant", "variant"),
        ("span", "span"),
        ("function", "functional"),
        ("unique_ptr|make_unique|shared_ptr|make_shared", "memory"),
        ("atomic|atomic_flag|atomic_thread_fence|memory_order_\\w+", "atomic"),
        ("thread|this_thread", "thread"),
        ("mutex|lock_guard|unique_lock|scoped_lock", "mutex"),
        ("condition_variable", "condition_variable"),
        ("chrono", "chrono"),
        ("filesystem", "filesystem"),
        ("regex|smatch|cmatch", "regex"),
        ("numeric_limits", "limits"),
        ("u?int(?:8|16|32|64)_t|u?intptr_t", "cstdint"),
        ("size_t|ptrdiff_t", "cstddef cstdio cstdlib cstring ctime"),
        ("memcpy|memmove|memset|memcmp|memchr|strlen|strcmp|strncmp|strchr|strstr", "cstring"),
        ("malloc|calloc|realloc|free|abort|exit|getenv|strtod|strtoul|strtoull", "cstdlib"),
        ("printf|fprintf|snprintf|vsnprintf|fopen|fclose|fflush|fputs|fwrite|fread|FILE",
         "cstdio"),
        ("isnan|isfinite|isinf|sqrt|log|exp|fabs|pow", "cmath"),
        ("min|max|clamp|sort|find_if|all_of|any_of|none_of|count|count_if|copy_n|fill_n|"
         "equal|lower_bound|upper_bound|reverse|transform", "algorithm"),
        ("accumulate|iota", "numeric"),
        ("exchange|move|pair|make_pair", "utility map memory string vector"),
        ("bit_cast|countr_zero|popcount|rotr|rotl|has_single_bit", "bit"),
        ("va_list", "cstdarg"),
        ("ifstream|ofstream|fstream", "fstream"),
        ("ostringstream|istringstream|stringstream", "sstream"),
        ("signal|raise", "csignal"),
    )
]
# Asked of headers alone: every source has them from some header.
IN_HEADERS = {"cstddef", "cstdint"}
COMMENT_OR_TEXT = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'', re.DOTALL)
TYPE = re.compile(r"^(?:class|struct|enum class|enum) (?:alignas\([^)]*\) )?([A-Z]\w+)"
                  r"(?: final)?(?: :[^;{]*)?\s*\{", re.MULTILINE)


def sources(folder):
    return sorted(p for p in (ROOT / folder).rglob("*") if p.suffix in (".h", ".cpp", ".c"))


class File:
    """One header or source, named from ROOT."""

    def __init__(self, path):
        self.path = path
        self.name = str(path.relative_to(ROOT))
        self.top = self.name.split("/")[0]
        self.text = path.read_text()
        self.code = COMMENT_OR_TEXT.sub('""', self.text)
        found = INCLUDE.findall(self.text)
        self.quoted = [name for kind, name in found if kind == '"']
        self.system = [name for kind, name in found if kind == "<"]
        # (the name as it is written, the project's file or None)
        self.includes = [(name, self.resolve(name)) for name in self.quoted]
        self.module = re.sub(r"/(posix|win32)/", "/", self.name.rsplit(".", 1)[0])

    def resolve(self, included):
        for folder in (self.path.parent, ROOT / self.top, ROOT / "src", ROOT / "tests", ROOT):
            if (folder / included).is_file():
                return str((folder / included).resolve().relative_to(ROOT))
        return None


def layer_of(name):
    return name.split("/")[1]


def rank_of(layer, module):
    stem = module.rsplit("/", 1)[1]
    rows = ORDER[layer]
    for rank, row in enumerate(rows):
        if stem in row:
            return rank
    return rows.index({"*"})


def check_arrows(files, problems):
    used = set()
    for file in files:
        if file.top != "src":
            continue
        layer = layer_of(file.name)
        for written, target in file.includes:
            if target is None or not target.startswith("src/"):
                problems.append(f"{file.name}: {written} is no file of src/")
                continue
            to = layer_of(target)
            if to == layer:
                check_order(file, layer, target, problems)
                continue
            used.add((layer, to))
            if to not in ARROWS.get(layer, ()):
                problems.append(f"{file.name}: {layer} must not include {written}")
            only = ONLY.get((layer, to))
            if only and file.module.rsplit("/", 1)[1] not in only:
                problems.append(f"{file.name}: only {' and '.join(sorted(only))} may include "
                                f"{written}")
    for layer, targets in ARROWS.items():
        for to in sorted(targets):
            if (layer, to) not in used:
                problems.append(f"check_layers.py: no file of {layer} includes {to}: an arrow "
                                "that does not exist")


def check_named_modules(files, problems):
    """Every module that the tables above name exists."""
    modules = {file.module for file in files}
    named = [(layer, name) for layer, rows in ORDER.items() for row in rows for name in row]
    named += [(layer, name) for (layer, _), names in ONLY.items() for name in names]
    for layer, name in sorted(set(named)):
        if name != "*" and f"src/{layer}/{name}" not in modules:
            problems.append(f"check_layers.py: names {layer}/{name}, which does not exist")


def check_order(file, layer, target, problems):
    module = re.sub(r"\.\w+$", "", target)
    if layer not in ORDER or module == file.module:
        return
    if rank_of(layer, module) >= rank_of(layer, file.module):
        problems.append(f"{file.name}: {target} does not lie below it")


def check_beside(files, problems):
    for file in files:
        allowed = BESIDE.get(file.top)
        if allowed is None:
            continue
        for written, target in file.includes:
            if target is None:
                problems.append(f"{file.name}: {written} is no file of the project")
            elif not target.startswith(file.top + "/") and not (
                    target.startswith("src/") and target[4:].startswith(allowed)):
                problems.append(f"{file.name}: {file.top} must not include {written}")


def check_circles(files, problems):
    graph = {}
    for file in files:
        targets = graph.setdefault(file.module, set())
        for _, target in file.includes:
            module = target and target.rsplit(".", 1)[0]
            if module and module != file.module:
                targets.add(module)
    done = set()

    def visit(module, road):
        if module in road:
            circle = road[road.index(module):] + [module]
            problems.append("a circle: " + " -> ".join(circle))
            return
        if module in done:
            return
        for target in sorted(graph.get(module, ())):
            visit(target, road + [module])
        done.add(module)

    for module in sorted(graph):
        visit(module, [])


def types_of(files):
    """The types that exactly one header defines, by name."""
    owners = {}
    for file in files:
        if file.name.endswith(".h"):
            for name in TYPE.findall(file.code):
                owners.setdefault(name, set()).add(file.name)
    return {name: headers.pop() for name, headers in owners.items() if len(headers) == 1}


def check_direct(files, problems):
    by_name = {file.name: file for file in files}
    types = types_of(file for file in files if file.top == "src")
    for file in files:
        own = [file] + [by_name[name] for name in (file.module + ".h",) if name in by_name]
        system = {name for one in own for name in one.system}
        project = {target for one in own for _, target in one.includes} | {one.name for one in own}
        for pattern, headers in OWNERS:
            if headers[0] in IN_HEADERS and not file.name.endswith(".h"):
                continue
            found = pattern.search(file.code)
            if found and not system.intersection(headers):
                problems.append(f"{file.name}: names {found.group()} without <{headers[0]}>")
        if file.top == "tests":
            continue
        words = set(re.findall(r"\b[A-Z]\w+", file.code))
        local = set(re.findall(r"\b(?:class|struct|enum|enum class|using) ([A-Z]\w+)", file.code))
        for name in sorted(words.intersection(types) - local):
            if types[name] not in project:
                problems.append(f"{file.name}: names {name} without {types[name]}")


def check_platform(files, problems):
    for file in files:
        if file.name.startswith("src/platform/"):
            continue
        match = PLATFORM_CONDITION.search(file.text)
        if match:
            problems.append(f"{file.name}: a platform condition ({match.group(1)})")
        if file.top in ("src", "admin") and any(PLATFORM_HEADER.fullmatch(name)
                                                for name in file.system):
            problems.append(f"{file.name}: a system header outside src/platform")


def main():
    files = [File(path) for folder in ("src", "sample", "admin", "tests", "bench")
             for path in sources(folder) if "node_modules" not in path.parts]
    problems = []
    for check in (check_arrows, check_named_modules, check_beside, check_circles, check_direct,
                  check_platform):
        check(files, problems)
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
