"""Finds the places in a source where one small change makes the program wrong.

A place is a span of a file and what to write there instead. Kinds:
  text       a string or character literal, changed by one character
  conversion another conversion in a message's format, which prints the same
  level      a message of another level
  constant   a number, a truth value, an enumerator, a named constant
  condition  a negated condition, another comparison, "and" for "or"
  branch     a condition that always or never holds
  operand    one side of an "and" or "or" alone
  member     another operation or field of the same object and type
  swap       two neighbouring statements, exchanged
  removal    a statement left out
  argument   an argument exchanged with its neighbour, or replaced
  lock       a lock that is not taken
"""
from collections import Counter
from dataclasses import dataclass, replace
import re

from clang.cindex import CursorKind as Kind, Index, TypeKind

OTHER_OPERATOR = {'&&': '||', '||': '&&', '==': '!=', '!=': '==', '<': '<=', '<=': '<', '>': '>=', '>=': '>',
                  '+': '-', '-': '+', '|': '&', '&': '|'}
OTHER_CONVERSIONS = {'%{public}@': ['%s'], '%s': ['%{public}@'], '%lu': ['%llu'], '%llu': ['%lu'], '%ld': ['%lld'],
                     '%lld': ['%ld'], '%f': ['%lf'], '%lf': ['%f'], '%d': ['%ld', '%lu']}
CONVERSION = re.compile(r'%(\{public\}@|l{0,2}[udf]|s)')
OTHER_LEVEL = {'message': 'error', 'error': 'message', 'oversize': 'message', 'typeCheck': 'error'}
FUNCTIONS = {Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR, Kind.FUNCTION_TEMPLATE,
             Kind.CONVERSION_FUNCTION}
LABEL = re.compile(r'case\b|default:')
ASSIGNMENT = re.compile(r'((?:\w+(?:->|\.))*\w+)(?: = |\.emplace\(\))')
LOGS = re.compile(r'(if \([^{};]*\) \{\s*)?_?log\.[^;]*;?\s*\}?$')
CALL_OF_MORE = re.compile(r'(?<![\w:])(?!paths::|std::|value_or\()[\w:]+\(')  # than what only computes


@dataclass(frozen=True)
class Place:
    kind: str
    file: str
    begin: int
    end: int
    old: str
    new: str
    line: int
    function: str
    context: str  # the line that it begins in
    number: int = 1  # of those that would have the same key

    def key(self):
        """Stays the same when lines move."""
        return ' | '.join([self.file, self.function, self.kind, _one_line(self.context), _one_line(self.old),
                           _one_line(self.new)]) + (f' #{self.number}' if self.number > 1 else '')

    def __str__(self):
        return f'{self.file}:{self.line}: {self.kind} in {self.function}: {_one_line(self.old)} -> ' \
               f'{_one_line(self.new) or "(nothing)"}'


def _one_line(text):
    return re.sub(r'\s+', ' ', text).strip()


class Finder:
    """Walks one parsed source and collects the places of one file in it."""

    def __init__(self, root, file, unit):
        self.file = file
        self.path = str(root / file)
        self.text = (root / file).read_bytes()
        self.places = []
        self.siblings = {}
        self._visit(unit.cursor, '(file)')

    def _visit(self, cursor, function):
        for child in cursor.get_children():
            if child.location.file is None or child.location.file.name != self.path:
                continue
            name = child.spelling if child.kind in FUNCTIONS else function
            self._look(child, name, cursor)
            self._visit(child, name)

    def _add(self, kind, begin, end, new, function):
        old = self.text[begin:end].decode()
        whole_line = self.text[self.text.rfind(b'\n', 0, begin) + 1:].split(b'\n', 1)[0]
        if old == new or not old.strip() or b'.reserve(' in whole_line:
            return  # room that is made beforehand changes nothing but speed
        line = self.text.count(b'\n', 0, begin) + 1
        self.places.append(Place(kind, self.file, begin, end, old, new, line, function, whole_line.decode()))

    def _source(self, cursor):
        return self.text[cursor.extent.start.offset:cursor.extent.end.offset].decode()

    def _look(self, cursor, function, parent):
        kind = cursor.kind
        if kind in (Kind.STRING_LITERAL, Kind.CHARACTER_LITERAL):
            self._literal(cursor, function)
        elif kind == Kind.INTEGER_LITERAL:
            source = self._source(cursor)
            if re.fullmatch(r'\d+', source):
                self._replace('constant', cursor, str(int(source) + 1), function)
        elif kind == Kind.CXX_BOOL_LITERAL_EXPR:
            self._replace('constant', cursor, 'false' if self._source(cursor) == 'true' else 'true', function)
        elif kind == Kind.DECL_REF_EXPR:
            self._named_constant(cursor, function)
        elif kind in (Kind.IF_STMT, Kind.WHILE_STMT):
            self._condition(cursor, function)
        elif kind == Kind.CONDITIONAL_OPERATOR:
            self._decide(next(cursor.get_children()), ['true', 'false'], function)
        elif kind == Kind.RETURN_STMT:
            for value in cursor.get_children():
                if value.type.get_canonical().kind == TypeKind.BOOL and value.kind != Kind.CXX_BOOL_LITERAL_EXPR:
                    self._negate(value, function)
        elif kind == Kind.BINARY_OPERATOR:
            self._operator(cursor, function)
        elif kind == Kind.MEMBER_REF_EXPR:
            self._member(cursor, function)
        elif kind == Kind.COMPOUND_STMT:
            self._statements(cursor, function, parent.kind in FUNCTIONS or parent.kind == Kind.LAMBDA_EXPR)
        if kind == Kind.CALL_EXPR:
            self._call(cursor, function)

    def _replace(self, kind, cursor, new, function):
        self._add(kind, cursor.extent.start.offset, cursor.extent.end.offset, new, function)

    def _literal(self, cursor, function):
        source = self._source(cursor)
        if cursor.kind == Kind.CHARACTER_LITERAL:
            if re.fullmatch(r"'[^\\]'", source):
                self._replace('text', cursor, "'~'", function)
            return
        begin = cursor.extent.start.offset
        for found in CONVERSION.finditer(source):
            if found.group() != source.strip('"'):
                for other in OTHER_CONVERSIONS[found.group()]:
                    self._add('conversion', begin + found.start(), begin + found.end(), other, function)
        if source.endswith('"') and not source.startswith('R'):
            end = cursor.extent.end.offset
            start = self.text.rfind(b'"', 0, end - 1)
            self._add('text', start, end, self.text[start:end - 1].decode() + '~"', function)

    def _member(self, cursor, function):
        target, end = cursor.referenced, cursor.extent.end.offset
        if target is None or target.kind not in (Kind.CXX_METHOD, Kind.FIELD_DECL) or target.location.file is None or \
                '/usr/' in target.location.file.name or 'utex' in target.type.spelling:
            return
        begin = end - len(target.spelling)
        other = self._sibling(target)
        if other is not None and other != target.spelling and self.text[begin:end].decode() == target.spelling:
            self._add('member', begin, end, other, function)

    def _named_constant(self, cursor, function):
        target = cursor.referenced
        if target is None or target.location.file is None:
            return
        of_plugin = '/usr/' not in target.location.file.name
        if not of_plugin or target.kind not in (Kind.ENUM_CONSTANT_DECL, Kind.VAR_DECL):
            return
        if target.kind == Kind.VAR_DECL and not (target.type.is_const_qualified() and
                                                 target.semantic_parent.kind == Kind.NAMESPACE):
            return
        other = self._sibling(target)
        if other is not None:
            source = self._source(cursor)
            if source.endswith(target.spelling):
                self._replace('constant', cursor, source[:-len(target.spelling)] + other, function)

    def _sibling(self, target):
        """What has the same type in the same list or class: the next one, and after the last the first."""
        key = target.get_usr()
        if key not in self.siblings:
            file = target.location.file.name
            alike = [c for c in target.semantic_parent.get_children()
                     if c.kind == target.kind and c.type.spelling == target.type.spelling and
                     c.location.file is not None and c.location.file.name == file and
                     (c.kind != Kind.ENUM_CONSTANT_DECL or c.get_usr() == key or c.enum_value != target.enum_value)]
            names = [c.spelling for c in alike]
            at = names.index(target.spelling) if target.spelling in names else 0
            following = names[(at + 1) % len(names)] if len(names) > 1 else None
            self.siblings[key] = following
        return self.siblings[key]

    def _condition(self, cursor, function):
        before = None
        for child in cursor.get_children():
            if child.kind == Kind.COMPOUND_STMT:
                break
            before = child
        if before is not None and before.kind.is_expression():
            # A loop that always goes on would only end by the tests' patience.
            self._decide(before, ['true', 'false'] if cursor.kind == Kind.IF_STMT else ['false'], function)

    def _decide(self, condition, answers, function):
        self._negate(condition, function)
        for answer in answers:
            self._replace('branch', condition, answer, function)

    def _negate(self, condition, function):
        source = self._source(condition)
        if source.startswith('!') and '&&' not in source and '||' not in source:
            self._replace('condition', condition, source[1:], function)
        else:
            self._replace('condition', condition, f'!({source})', function)

    def _operator(self, cursor, function):
        left, right = list(cursor.get_children())
        between = self.text[left.extent.end.offset:right.extent.start.offset].decode()
        operator = between.strip()
        if operator in OTHER_OPERATOR:
            begin = left.extent.end.offset + between.index(operator)
            self._add('condition', begin, begin + len(operator), OTHER_OPERATOR[operator], function)
        if operator in ('&&', '||'):
            for side in (left, right):
                self._replace('operand', cursor, f'({self._source(side)})', function)

    def _with_semicolon(self, cursor):
        end = cursor.extent.end.offset
        rest = re.match(rb'\s*;', self.text[end:end + 80])
        return end + rest.end() if rest else end

    def _statements(self, cursor, function, is_body):
        children = list(cursor.get_children())
        for child in children:
            if is_body and child == children[-1] and child.kind == Kind.RETURN_STMT:
                continue  # a function that ends without its value does not behave in any defined way
            begin, end = child.extent.start.offset, self._with_semicolon(child)
            if child.kind == Kind.DECL_STMT:
                if re.match(r'const Lock\b', self._source(child)):
                    self._add('lock', begin, end, '', function)
            elif not LABEL.match(self._source(child)) and \
                    '.reserve(' not in self._source(child).split(';')[0]:
                self._add('removal', begin, end, '' if child.kind != Kind.RETURN_STMT else ';', function)
        for first, second in zip(children, children[1:]):
            if not (self._acts(first) and self._acts(second)) or self._commute(first, second):
                continue
            spans = [(c.extent.start.offset, self._with_semicolon(c)) for c in (first, second)]
            (begin, middle), (after, end) = spans
            if middle > after:
                continue
            swapped = self.text[after:end] + self.text[middle:after] + self.text[begin:middle]
            self._add('swap', begin, end, swapped.decode(), function)

    def _acts(self, statement):
        """Does more than to declare a name; two declarations may stand in any order."""
        source = self._source(statement)
        if statement.kind in (Kind.RETURN_STMT, Kind.BREAK_STMT) or LABEL.match(source) or '.reserve(' in source.split(';')[0]:
            return False
        if statement.kind == Kind.DECL_STMT and re.match(r'[^(=]*= \[', source) and \
                re.search(r'\};?$', source):
            return False  # a lambda does nothing yet
        return statement.kind != Kind.DECL_STMT or bool(re.search(r'\b_?platform\.|\b_?log\.|\b_[a-z]\w*\(', source))

    def _commute(self, first, second):
        """Nothing can tell which came first: one assigns to a variable, calling nothing that acts, and the other
        does so to another variable or logs something else; or both set fields of one value; or one only fills a
        local container that the other does not mention."""
        sources = [self._source(first), self._source(second)]
        for one, other in (sources, reversed(sources)):
            if (target := assigned(one)) and not re.search(rf'{re.escape(target)}\b', other) and (
                    LOGS.match(other) or (second_target := assigned(other)) and not re.search(rf'{re.escape(second_target)}\b', one)):
                return True
        fields = [re.match(r'([a-z]\w*)\.set([A-Z]\w*)\(', source) for source in sources]
        if all(fields) and fields[0].group(1) == fields[1].group(1) and fields[0].group(2) != fields[1].group(2):
            return not any(re.search(r'\b_[a-z]\w*[.(]', source) for source in sources)
        for one, other in (sources, reversed(sources)):
            filled = re.match(r'([a-z]\w*)(\.|->)(push_back|emplace_back|set|insert|emplace|reserve)\(', one)
            if filled and not re.search(rf'\b{filled.group(1)}\b', other):
                return True
        return False

    def _call(self, cursor, function):
        children = list(cursor.get_children())
        callee = children[0] if children else None
        if callee is not None and callee.kind == Kind.MEMBER_REF_EXPR and callee.spelling in OTHER_LEVEL and \
                re.search(r'\b_?log\.\w+$', self._source(callee)):
            begin = callee.extent.end.offset - len(callee.spelling)
            self._add('level', begin, callee.extent.end.offset, OTHER_LEVEL[callee.spelling], function)
        if cursor.spelling == 'sync' and self._source(cursor).startswith('_accessQueue.sync('):
            source = self._source(cursor)
            task = source[len('_accessQueue.sync('):-1]
            self._replace('lock', cursor, f'({task})()', function)
        arguments = [a for a in cursor.get_arguments() if a is not None and a.extent.start.offset < a.extent.end.offset and
                     a.extent.start.offset >= cursor.extent.start.offset]
        if cursor.spelling.startswith('operator') or len(arguments) != cursor_arity(self._source(cursor), arguments):
            return
        for first, second in zip(arguments, arguments[1:]):
            if first.type.get_canonical().spelling.replace('const ', '') == \
                    second.type.get_canonical().spelling.replace('const ', ''):
                begin, end = first.extent.start.offset, second.extent.end.offset
                gap = self.text[first.extent.end.offset:second.extent.start.offset].decode()
                self._add('argument', begin, end, self._source(second) + gap + self._source(first), function)
        for argument in arguments:
            self._argument(argument, function)

    def _argument(self, argument, function):
        source = self._source(argument)
        kind = argument.type.get_canonical().kind
        name = argument.type.get_canonical().spelling
        if argument.kind in (Kind.STRING_LITERAL, Kind.LAMBDA_EXPR, Kind.INTEGER_LITERAL, Kind.CXX_BOOL_LITERAL_EXPR,
                             Kind.CXX_NULL_PTR_LITERAL_EXPR) or re.match(r'["\[\d]|std::move|true$|false$|nullptr$|std::nullopt$', source):
            return
        if kind == TypeKind.BOOL:
            new = f'!({source})'
        elif kind == TypeKind.ENUM:
            return
        elif kind in (TypeKind.INT, TypeKind.UINT, TypeKind.LONG, TypeKind.ULONG, TypeKind.UCHAR, TypeKind.DOUBLE):
            new = f'({source}) + 1'
        elif kind == TypeKind.POINTER or name.startswith('std::shared_ptr') or 'shared_ptr<' in name.split(',')[0]:
            new = 'nullptr'
        elif 'basic_string' in name:
            new = 'std::string("~")'
        else:
            new = '{}'
        self._replace('argument', argument, new, function)


def assigned(source):
    """The variable that a statement assigns to, when it does no more than that."""
    found = ASSIGNMENT.match(source)
    return found.group(1) if found and not CALL_OF_MORE.search(source, found.end()) else None


def cursor_arity(source, arguments):
    """All arguments are written out: none comes from a pack or a default."""
    return len(arguments) if source.endswith(')') or source.endswith('}') else -1


def find(root, through, files, flags):
    """The places of `files`, which are met when the source `through` is parsed: itself, headers that it includes."""
    unit = Index.create().parse(str(root / through), args=flags)
    worst = [d for d in unit.diagnostics if d.severity >= 3]
    if worst:
        raise SystemExit(f'mutate: {through} cannot be parsed: {worst[0]}')
    seen = {}
    for file in files:
        for place in Finder(root, file, unit).places:
            seen.setdefault((place.file, place.begin, place.end, place.new), place)
    numbers = Counter()
    numbered = []
    for place in sorted(seen.values(), key=lambda p: (p.file, p.begin)):
        numbers[place.key()] += 1
        numbered.append(replace(place, number=numbers[place.key()]))
    return numbered
