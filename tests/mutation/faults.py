# SPDX-License-Identifier: MIT
"""Small faults in C++ sources, made from the tokens.

Relies on how this repository is laid out: binary operators stand between blanks, template brackets and the marks of
pointers and references do not. What is taken wrongly all the same does not compile, and is drawn again.
"""
import hashlib
import re
from dataclasses import dataclass

TOKEN = re.compile(
    r"""(?P<skip>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*)
      |(?P<text>R?"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])*')
      |(?P<number>0[xX][0-9a-fA-F]+[uUlL]*|(?:\d+\.\d*|\.\d+|\d+)(?:[eE][-+]?\d+)?[fFuUlL]*)
      |(?P<word>[A-Za-z_]\w*)
      |(?P<mark><<=|>>=|\.\.\.|->\*|<<|>>|<=|>=|==|!=|&&|\|\||\+\+|--|->|::|[-+*/%&|^]=|.)""",
    re.X | re.S | re.M)

BINARY = {
    "+": ["-"], "-": ["+"], "*": ["+", "/"], "/": ["*"], "%": ["/"],
    "&": ["|"], "|": ["&"], "^": ["|"], "<<": [">>"], ">>": ["<<"],
    "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"], "==": ["!="], "!=": ["=="],
    "&&": ["||"], "||": ["&&"],
    "+=": ["-="], "-=": ["+="], "*=": ["+="], "/=": ["*="], "|=": ["&="], "&=": ["|="], "^=": ["|="],
    "<<=": [">>="], ">>=": ["<<="],
}
GROUP = {}
for group, marks in {
    "arithmetic": "+ - * / % += -= *= /=", "bits": "& | ^ << >> |= &= ^= <<= >>=",
    "comparison": "< <= > >= == !=", "logic": "&& ||"}.items():
    GROUP.update(dict.fromkeys(marks.split(), group))
SWAPPED = {"-", "/", "%", "<<", ">>", "<", ">", "<=", ">="}
# What an expression statement does not begin with.
NO_STATEMENT = set("""return using typedef template struct class enum union static constexpr const extern namespace
  inline if else for while do switch case default break continue goto public private protected static_assert friend
  asm typename alignas __attribute__ explicit operator volatile OX_INLINE""".split())


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclass(frozen=True)
class Fault:
    file: str   # below src/
    group: str
    start: int
    end: int
    new: str
    before: str  # the lines it touches, blanks joined
    after: str
    line: int
    key: str


def tokens_of(text):
    """All that is code: no blanks, comments or preprocessor lines, and no static assertion."""
    tokens, in_assert, depth = [], False, 0
    for m in TOKEN.finditer(text):
        if m.lastgroup == "skip":
            continue
        token = Token(m.lastgroup, m.group(), m.start(), m.end())
        if token.text == "static_assert":
            in_assert, depth = True, 0
        if in_assert:
            in_assert = token.text != ";"
            continue
        tokens.append(token)
    return tokens


def partners(tokens):
    """Index of the closing bracket for each opening one, and back."""
    closing, stack, found = {"(": ")", "[": "]", "{": "}"}, [], {}
    for i, t in enumerate(tokens):
        if t.kind != "mark":
            continue
        if t.text in closing:
            stack.append(i)
        elif t.text in closing.values() and stack:
            found[i] = stack.pop()
            found[found[i]] = i
    return found


def changed_number(text):
    m = re.fullmatch(r"(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)", text)
    if m:
        value = int(m.group(1), 0)
        write = (lambda v: hex(v)) if m.group(1)[:2] in ("0x", "0X") else str
        return [write(v) + m.group(2) for v in (value + 1, value - 1) if v >= 0]
    m = re.fullmatch(r"([\d.]+(?:[eE][-+]?\d+)?)([fFlL]*)", text)
    if not m:
        return []
    value = float(m.group(1))
    return [repr(v) + m.group(2) for v in ({0.0: [1.0], 1.0: [0.0, 2.0]}.get(value, [value + 1.0, value / 2]))]


def faults_of(file, text):
    tokens, found = tokens_of(text), []
    pair = partners(tokens)
    around, stack = [], [""]  # the innermost bracket that a token stands in
    for i, t in enumerate(tokens):
        if t.text in (")", "]", "}") and i in pair:
            stack.pop()
        around.append(stack[-1])
        if t.text in ("(", "[", "{") and i in pair:
            stack.append(t.text)

    def blank_at(position):
        return 0 <= position < len(text) and text[position].isspace()

    def between_blanks(t):
        return blank_at(t.start - 1) and blank_at(t.end)

    def add(group, start, end, new):
        if text[start:end] == new:
            return
        first = text.rfind("\n", 0, start) + 1
        last = text.find("\n", end)
        last = len(text) if last < 0 else last
        before = " ".join(text[first:last].split())
        after = " ".join((text[first:start] + new + text[end:last]).split())
        key = hashlib.sha1("\0".join((file, text, str(start), str(end), new)).encode()).hexdigest()[:16]
        found.append(Fault(file, group, start, end, new, before, after, text.count("\n", 0, start) + 1, key))

    def operand_left(i):
        """First token of the operand that ends at token i."""
        while i >= 0:
            t = tokens[i]
            if t.text in (")", "]") and i in pair:
                i = pair[i]
                if i and (tokens[i - 1].kind == "word" or tokens[i - 1].text in (")", "]")) and \
                        tokens[i - 1].text not in ("if", "while", "return"):
                    i -= 1
                    continue
            elif t.kind not in ("word", "number"):
                return None
            if i >= 2 and tokens[i - 1].text in (".", "->", "::"):
                i -= 2
                continue
            return i
        return None

    def operand_right(i):
        """Last token of the operand that begins at token i."""
        if i >= len(tokens):
            return None
        if tokens[i].text == "(" and i in pair:
            return pair[i]
        if tokens[i].kind not in ("word", "number"):
            return None
        while i + 1 < len(tokens):
            following = tokens[i + 1].text
            if following in ("(", "[") and i + 1 in pair:
                i = pair[i + 1]
            elif following in (".", "->", "::") and i + 2 < len(tokens) and tokens[i + 2].kind == "word":
                i += 2
            else:
                break
        return i

    def end_of_statement(i):
        """Index of the semicolon that ends the simple statement at token i."""
        while i < len(tokens):
            if tokens[i].text == ";":
                return i
            if tokens[i].text == "}" or tokens[i].text == "{" and tokens[i - 1].text == ")":
                return None
            if tokens[i].text in ("(", "[", "{") and i in pair:
                i = pair[i]
            i += 1
        return None

    for i, t in enumerate(tokens):
        previous = tokens[i - 1].text if i else ";"
        following = tokens[i + 1].text if i + 1 < len(tokens) else ";"
        if t.kind == "number":
            for new in changed_number(t.text):
                add("constant", t.start, t.end, new)
        elif t.text in ("true", "false"):
            add("constant", t.start, t.end, "false" if t.text == "true" else "true")
        elif t.text in ("++", "--"):
            add("step", t.start, t.end, "--" if t.text == "++" else "++")
        elif t.text == "!":
            add("logic", t.start, t.end, "")
        elif t.text == "~":
            add("bits", t.start, t.end, "")
        elif t.text in BINARY and between_blanks(t) and previous not in ("template", "operator"):
            for new in BINARY[t.text]:
                add(GROUP[t.text], t.start, t.end, new)
            first, last = operand_left(i - 1), operand_right(i + 1)
            if t.text in SWAPPED and first is not None and last is not None:
                a, b = (tokens[first].start, tokens[i - 1].end), (tokens[i + 1].start, tokens[last].end)
                add("swap", a[0], b[1], text[slice(*b)] + text[a[1]:b[0]] + text[slice(*a)])
        elif t.text in ("if", "while") and following == "(" and i + 1 in pair:
            close = pair[i + 1]
            condition = (tokens[i + 1].end, tokens[close].start)
            add("condition", *condition, "false")
            if t.text == "if":
                add("condition", *condition, "true")
                if tokens[close + 1].text in ("return", "continue", "break"):
                    end = end_of_statement(close + 1)
                    if end and tokens[end + 1].text != "else":
                        add("guard", t.start, tokens[end].end, ";")
        elif t.text == "?":
            # The condition of a choice, where it is an operand or a comparison by itself.
            first = operand_left(i - 1)
            if first is not None and tokens[first - 1].text in ("=", "(", ",", "return"):
                add("condition", tokens[first].start, tokens[i - 1].end, "true")
                add("condition", tokens[first].start, tokens[i - 1].end, "false")
        # A statement begins here.
        starts = previous in (";", "{", "}", "else") or (
            previous == ")" and i - 1 in pair and tokens[pair[i - 1] - 1].text in ("if", "for", "while", "constexpr"))
        # In the braces of a namespace or a record too: what is no statement there does not compile.
        if starts and around[i] == "{" and (
                t.kind == "word" and t.text not in NO_STATEMENT or t.text in ("++", "--", "*", "(")):
            end = end_of_statement(i)
            if end:
                body = {x.text for x in tokens[i:end]}
                directive = "\n#" in text[t.start:tokens[end].end]
                if not directive and (body & {"(", "=", "++", "--"} or body & set(BINARY)):
                    add("statement", t.start, tokens[end].end, ";")
        # Arguments of a call, or of a list in braces.
        call = t.text == "(" and i and tokens[i - 1].kind == "word" and tokens[i - 1].text not in (
            "if", "for", "while", "switch", "sizeof", "return")
        if call and i >= 2:
            before = tokens[i - 2]
            declared = before.kind == "word" and before.text not in ("return", "else", "case") or \
                before.text in (">", "*", "&") and not between_blanks(before) and blank_at(before.end)
            call = not declared
        if (call or t.text == "{" and previous in ("=", "(", ",", "return")) and i in pair:
            parts, start, j = [], i + 1, i + 1
            while j < pair[i]:
                if tokens[j].text in ("(", "[", "{") and j in pair:
                    j = pair[j]
                elif tokens[j].text == ";":
                    parts = None
                    break
                elif tokens[j].text == ",":
                    parts.append((start, j - 1))
                    start = j + 1
                j += 1
            if parts:
                parts.append((start, pair[i] - 1))
                spans = [(tokens[a].start, tokens[b].end) for a, b in parts if a <= b]
                for a, b in zip(spans, spans[1:]):
                    add("arguments", a[0], b[1], text[slice(*b)] + text[a[1]:b[0]] + text[slice(*a)])
    return found
