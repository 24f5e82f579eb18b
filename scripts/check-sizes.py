#!/usr/bin/env python3
"""Fails for a source file of more than 500 lines, and for a function of more than 80.

A long function that is a plain list, one line for each case or step, may stay: the comment above it says so, with the
words "A table" or "A list of steps".
"""
import ast
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
MOST_LINES_OF_A_FILE = 500
MOST_LINES_OF_A_FUNCTION = 80
ALLOWED = re.compile(r"(#|//).*\b[Aa] (table|list of steps)\b")
SHELL_FUNCTION = re.compile(r"^(\w+)\(\) \{\n(?:.*\n)*?\}$", re.MULTILINE)
# What is no code: comments, raw strings, strings and characters.
NO_CODE = re.compile(r'//[^\n]*|/\*.*?\*/|R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"|(?<!\w)\'(?:\\.|[^\'\\\n])+\'', re.DOTALL)
DIRECTIVE = re.compile(r"^#[^\n]*(?:\\\n[^\n]*)*|^ *(?:public|protected|private):", re.MULTILINE)
NO_FUNCTION = re.compile(r"^\s*(else|if|for|while|switch|do|namespace|class|struct|enum|union|extern)\b")


def own_files():
    """What git tracks or would track, without links."""
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, check=True,
                            capture_output=True, text=True).stdout.split("\n")
    return [path for path in (ROOT / name for name in sorted(set(listed)) if name) if path.is_file()]


def cpp_functions(text):
    """(first line, last line) of each block with a parameter list before it, counted from 1.

    clang-format writes a block's brace behind a blank, and an initialiser's without one or behind an operator.
    """
    code = NO_CODE.sub(lambda match: ("" if match.group().startswith("/") else "x") + "\n" * match.group().count("\n"), text)
    code = DIRECTIVE.sub(lambda match: "\n" * match.group().count("\n"), code)
    open_braces = []  # for each: None for an initialiser, else where the function begins, or -1 for another block
    head_start = 0
    for match in re.finditer("[{};]", code):
        at = match.start()
        is_block = match.group() != ";"
        if match.group() == "{":
            head = code[head_start:at]
            is_block = code[at - 1].isspace() and not head.rstrip().endswith(("=", ",", "(", "{", "return"))
            begin = head_start + len(head) - len(head.lstrip())
            is_function = ")" in head and not NO_FUNCTION.match(head)
            open_braces.append((begin if is_function else -1) if is_block else None)
        elif match.group() == "}":
            begin = open_braces.pop()
            is_block = begin is not None
            if is_block and begin >= 0:
                yield code.count("\n", 0, begin) + 1, code.count("\n", 0, at) + 1
        if is_block or match.group() == ";":
            head_start = at + 1


def python_functions(text):
    for node in ast.walk(ast.parse(text)):
        if isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef)):
            yield node.lineno, node.end_lineno


def shell_functions(text):
    for match in SHELL_FUNCTION.finditer(text):
        first = text.count("\n", 0, match.start()) + 1
        yield first, first + match.group().count("\n")


def functions_of(path, text):
    if path.suffix in {".h", ".c", ".cpp"}:
        return cpp_functions(text)
    if text.startswith("#!") and "sh" in text.split("\n", 1)[0]:
        return shell_functions(text)
    if path.suffix == ".py" or "python" in text.split("\n", 1)[0]:
        return python_functions(text)
    return None


def is_allowed(lines, first):
    """Does the comment above line `first` say that it is a list?"""
    above = first - 2
    while above >= 0 and lines[above].lstrip().startswith(("//", "#")):
        if ALLOWED.search(lines[above]):
            return True
        above -= 1
    return False


def faults_of(path):
    text = path.read_text(errors="replace")
    functions = functions_of(path, text)
    if functions is None:
        return
    name = path.relative_to(ROOT)
    lines = text.splitlines()
    if len(lines) > MOST_LINES_OF_A_FILE:
        yield f"{name}: {len(lines)} lines"
    for first, last in functions:
        if last - first >= MOST_LINES_OF_A_FUNCTION and not is_allowed(lines, first):
            yield f"{name}:{first}: a function of {last - first + 1} lines"


def main():
    faults = [fault for path in own_files() for fault in faults_of(path)]
    for fault in faults:
        print(fault, file=sys.stderr)
    print(f"sizes: {len(faults)} faults")
    return 1 if faults else 0


sys.exit(main())
