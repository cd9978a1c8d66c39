# SPDX-License-Identifier: MIT
"""Finds the places of a C++ source where one thing can be put wrong.

Knows no C++ but what the formatted sources of src/ look like. Left alone are comments, texts, preprocessor lines,
declarations, array sizes, enumerations, the log's lines for developers, and HS_UNREACHABLE, which nothing reaches.
"""

import bisect
import dataclasses
import re

HIDDEN = re.compile(
    r"""
      //[^\n]* | /\*.*?\*/
    | ^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*
    | "(?:\\.|[^"\\\n])*" | '(?:\\.|[^'\\\n])*'
    """,
    re.DOTALL | re.MULTILINE | re.VERBOSE,
)
LEFT_ALONE = re.compile(r"\b(?:static_assert|pw_log_debug|pw_log_trace|HS_UNREACHABLE) ?\(")
NO_STATEMENT = (
    r"(?:return|if|for|while|switch|case|default|else|do|using|break|continue|goto|public|private"
    r"|spa_\w+_for_each\w*|spa_list_consume)\b"
)

COMPARISON = re.compile(r" (==|!=|<=|>=|<|>) ")
COMPARISONS = {
    "==": ["!="],
    "!=": ["=="],
    "<": ["<=", ">="],
    ">": [">=", "<="],
    "<=": ["<", ">"],
    ">=": [">", "<"],
}
JUNCTION = re.compile(r"(?<= )(&&|\|\|)(?= )")
SIGN = re.compile(r"(?<=[\w)\]] )([+-])(?= [\w(])")
NUMBER = re.compile(r"(?<![\w.])(0x[0-9a-fA-F]+|\d+(?:\.\d+)?)(?=[uUlLfF]*\b)")
TRUTH = re.compile(r"\b(true|false)\b")
CONDITION = re.compile(r"\bif (?:constexpr )?\(")
RETURN = re.compile(r"\breturn ([^;{}]+);")
WITHOUT_VALUE = re.compile(r'nullptr|true|false|-?\d\w*|"_*"')
ARRAY = re.compile(r"(?m)^\t+(?:static |constexpr |const )*[\w:<>]+ \w+(?=\[)[^;=]*")
STATEMENT = re.compile(rf"(?m)^\t+(?!{NO_STATEMENT})(?=[\w+*-])")
CALL = re.compile(r"[\w:.>-]+\(")
ASSIGNMENT = re.compile(
    r"\*?[^\s=(]+(?:\([^\s=]*\)[^\s=(]*)? (?:[-+*/|&]|<<|>>)?= "
    r"|(?:\+\+|--)[\w*(]|\S+(?:\+\+|--);|delete "
)


@dataclasses.dataclass(frozen=True, order=True)
class Mutation:
    """`text[begin:end]` becomes `new`."""

    begin: int
    end: int
    new: str
    what: str


def blank(text):
    return re.sub(r"[^\n]", " ", text)


def hide(text):
    """The same text, as long, with nothing in it that is no code."""

    def hidden(match):
        found = match.group()
        return found[0] + "_" * (len(found) - 2) + found[-1] if found[0] in "\"'" else blank(found)

    text = HIDDEN.sub(hidden, text)
    for match in LEFT_ALONE.finditer(text):
        end = text.index(";", closing(text, match.end() - 1)) + 1
        text = text[: match.start()] + blank(text[match.start() : end]) + text[end:]
    return text


def closing(text, at):
    """Where the bracket closes that opens at `at`."""
    pairs = {"(": ")", "{": "}", "[": "]"}
    open_, close, depth = text[at], pairs[text[at]], 0
    for i in range(at, len(text)):
        depth += (text[i] == open_) - (text[i] == close)
        if depth == 0:
            return i
    raise ValueError(f"a bracket stays open at {at}")


def kind_of_block(head, outer):
    """What stands between the braces that `head` begins: "code", "values", "scope", or "other"."""
    if outer in ("code", "other"):
        return outer
    if re.search(r"\benum\b", head):
        return "other"
    if re.search(r"\b(namespace|struct|class|union)\b", head) and "(" not in head:
        return "scope"
    if "(" in head or re.search(r"\[[^]]*\]\s*$", head) or (not head.strip() and outer == "scope"):
        return "code"
    return "values" if outer == "values" or "constexpr" in head else "other"


def areas(text):
    """Begins and kinds of the stretches of a hidden text: in code anything goes, in values the constants."""
    begins, kinds, stack, head = [0], ["scope"], ["scope"], 0
    for i, c in enumerate(text):
        if c == "{":
            stack.append(kind_of_block(text[head:i], stack[-1]))
        elif c == "}":
            stack.pop()
        elif c == "=" and stack[-1] == "scope" and "constexpr" in text[head:i]:
            begins.append(i)
            kinds.append("values")
            continue
        elif c != ";":
            continue
        head = i + 1
        begins.append(i)
        kinds.append(stack[-1])
    return begins, kinds


def end_of_statement(text, begin):
    """Past its semicolon; a lambda or a list inside has semicolons of its own."""
    depth = 0
    for i in range(begin, len(text)):
        depth += (text[i] in "({[") - (text[i] in ")}]")
        if text[i] == ";" and depth == 0:
            return i + 1
    raise ValueError(f"a statement has no end at {begin}")


def statements(text):
    """(begin, end, is_call) of what can be left out: calls, assignments, counting up and down, delete."""
    for match in STATEMENT.finditer(text):
        begin = match.end()
        if not text[:begin].rstrip().endswith((";", "{", "}", ")", ":", "else")):
            continue
        is_assignment = ASSIGNMENT.match(text, begin) is not None
        if is_assignment or CALL.match(text, begin):
            yield begin, end_of_statement(text, begin), not is_assignment


def changed_tokens(text):
    """(begin, end, new) of operators and constants."""
    arrays = [match.span() for match in ARRAY.finditer(text)]
    for match in COMPARISON.finditer(text):
        for new in COMPARISONS[match[1]]:
            yield *match.span(1), new
    for match in JUNCTION.finditer(text):
        yield *match.span(), "||" if match[1] == "&&" else "&&"
    for match in SIGN.finditer(text):
        yield *match.span(), "-" if match[1] == "+" else "+"
    for match in TRUTH.finditer(text):
        yield *match.span(), "false" if match[1] == "true" else "true"
    for match in NUMBER.finditer(text):
        if not any(begin <= match.start() < end for begin, end in arrays):
            yield *match.span(1), one_more(match[1])


def one_more(number):
    if number.startswith("0x"):
        return hex(int(number, 16) + 1)
    return str(float(number) + 1 if "." in number else int(number) + 1)


def changed_expressions(text, source):
    """(begin, end, new, what) of conditions and of what is returned."""
    for match in CONDITION.finditer(text):
        end = closing(text, match.end() - 1)
        # What is declared in front of the condition stays there.
        begin = text.rfind(";", match.end(), end) + 1 or match.end()
        yield begin, end, f"!({source[begin:end].strip()})", "condition negated"
    for match in RETURN.finditer(text):
        if not WITHOUT_VALUE.fullmatch(match[1]):
            yield *match.span(1), "{}", "returns {}"


def changed_statements(text, source):
    """(begin, end, new, what) of statements that are left out, and of neighbouring calls in the wrong order."""
    previous = None
    for begin, end, is_call in statements(text):
        second = source[begin:end]
        yield begin, end, ";", f"without {one_line(second)}"
        if previous and is_call and is_next(text, previous, begin):
            first, between = source[slice(*previous)], source[previous[1] : begin]
            yield previous[0], end, second + between + first, f"swapped {one_line(first)} and {one_line(second)}"
        previous = (begin, end) if is_call else None


def is_next(text, previous, begin):
    """Whether what begins there comes right after the previous statement, in the same block."""
    if text[: previous[0]].rstrip().endswith((")", "else")):
        return False
    return text[previous[1] : begin].isspace() and indent(text, previous[0]) == indent(text, begin)


def find(source):
    """All mutations of a source, by their place."""
    text = hide(source)
    begins, kinds = areas(text)
    tokens = [(begin, end, new, f"{source[begin:end]} -> {new}") for begin, end, new in changed_tokens(text)]
    rest = [*changed_expressions(text, source), *changed_statements(text, source)]

    def kind_at(at):
        return kinds[bisect.bisect_right(begins, at) - 1]

    found = [m for m in tokens if kind_at(m[0]) == "code" or kind_at(m[0]) == "values" and m[2].isalnum()]
    found += [m for m in rest if kind_at(m[0]) == "code"]
    return sorted(Mutation(*m) for m in found if source[m[0] : m[1]] != m[2])


def one_line(text):
    text = " ".join(text.split())
    return text if len(text) <= 70 else text[:67] + "..."


def indent(text, at):
    return at - text.rfind("\n", 0, at)
