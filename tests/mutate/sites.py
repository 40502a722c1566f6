# SPDX-License-Identifier: GPL-2.0-only
"""Finds where the module's C++ can be broken, in the syntax tree that clang prints as JSON.

A site is an operator, a constant or a statement together with its mutants. Each site knows the
edits that put all its mutants into the text at once; live.hpp has the functions they call.
"""

import json
import subprocess
import sys
from pathlib import Path

# What an operator turns into. The first mutant of an ordering moves its boundary, the second negates it.
RELATIONS = {
    '<': ('less', ['<=', '>=']),
    '<=': ('less_equal', ['<', '>']),
    '>': ('greater', ['>=', '<=']),
    '>=': ('greater_equal', ['>', '<']),
    '==': ('equal', ['!=']),
    '!=': ('not_equal', ['==']),
}
ARITHMETIC = {
    '+': ('add', '-'), '-': ('subtract', '+'), '*': ('multiply', '/'), '/': ('divide', '*'),
    '%': ('remainder', '*'), '<<': ('shift_left', '>>'), '>>': ('shift_right', '<<'),
    '&': ('bit_and', '|'), '|': ('bit_or', '&'), '^': ('bit_xor', '&'),
}
ASSIGNMENTS = {
    '+=': ('add_to', '-='), '-=': ('subtract_from', '+='), '*=': ('multiply_by', '/='),
    '/=': ('divide_by', '*='), '%=': ('reduce_by', '*='), '<<=': ('shift_left_by', '>>='),
    '>>=': ('shift_right_by', '<<='), '&=': ('and_with', '|='), '|=': ('or_with', '&='),
    '^=': ('xor_with', '&='),
}
STEPS = {('++', False): ('increment', '--'), ('--', False): ('decrement', '++'),
         ('++', True): ('increment_after', '--'), ('--', True): ('decrement_after', '++')}

# Evaluated by the compiler, or not at all: a change there does not compile or changes nothing.
CONSTANT = {
    'StaticAssertDecl', 'EnumConstantDecl', 'ConstantExpr', 'TemplateArgument', 'ConceptDecl',
    'RequiresExpr', 'NonTypeTemplateParmDecl', 'TemplateTypeParmDecl', 'UnaryExprOrTypeTraitExpr',
    'OffsetOfExpr', 'CXXNoexceptExpr', 'GCCAsmStmt', 'SizeOfPackExpr', 'TypeTraitExpr',
    'SubstNonTypeTemplateParmExpr', 'ClassTemplateSpecializationDecl',
}
FUNCTIONS = {'FunctionDecl', 'CXXMethodDecl', 'CXXConstructorDecl', 'CXXDestructorDecl', 'CXXConversionDecl'}
CALLS = {'CallExpr', 'CXXMemberCallExpr', 'CXXOperatorCallExpr'}
TRANSPARENT = {'ExprWithCleanups', 'ImplicitCastExpr', 'CXXBindTemporaryExpr', 'MaterializeTemporaryExpr'}
BODIES = {'CompoundStmt', 'IfStmt', 'ForStmt', 'WhileStmt', 'DoStmt', 'CaseStmt', 'DefaultStmt',
          'CXXForRangeStmt', 'LabelStmt', 'AttributedStmt'}
INTEGERS = {
    'bool', 'char', 'signed char', 'unsigned char', 'short', 'unsigned short', 'int', 'unsigned int',
    'long', 'unsigned long', 'long long', 'unsigned long long',
}
NS = '::mox_mutate::'

# The order of edits at one offset: ends of what lies before it, its own operator, beginnings.
END, OPERATOR, BEGIN = range(3)


class Site:
    """mutants: texts that replace start..end. prefix etc. build the edits, NUMBER stands for the mutant's number."""

    def __init__(self, kind, start, end, mutants, prefix, suffix, operator=None, outer=False, constant=False):
        self.kind = kind
        self.start, self.end = start, end
        self.mutants = mutants
        self.prefix, self.suffix, self.operator = prefix, suffix, operator
        self.outer = outer
        self.constant = constant  # in code that the compiler may evaluate

    def key(self):
        return (self.start, self.end, self.kind)

    def edits(self, number):
        """(offset, place, nesting, bytes removed, text), in the order in which they stand in the text."""
        rank = 0 if self.outer else 1
        inner = (self.end - self.start) * 2 - rank
        prefix, suffix = (text.replace('NUMBER', str(number)) for text in (self.prefix, self.suffix))
        removed = 0
        edits = []
        if self.operator:
            at, length, text = self.operator
            text = text.replace('NUMBER', str(number))
            if at == self.start:
                removed, prefix = length, prefix + text
            else:
                edits.append((at, OPERATOR, 0, length, text))
        edits.append((self.start, BEGIN, -inner, removed, prefix))
        edits.append((self.end, END, inner, 0, suffix))
        return edits


class Finder:
    """Walks one unit's tree and collects the sites of all files below root."""

    def __init__(self, root, texts):
        self.root = root
        self.texts = texts  # of each file, by its name relative to root
        self.sites = {}  # file -> {key: Site}
        self.file = None
        self.constant = False  # in a constexpr function, or a member's first value

    # Locations: clang prints a file's name only where it differs from the one printed before.

    def place(self, loc):
        """(file, offset, length of the token) or None: nowhere, or in a macro's expansion."""
        if 'spellingLoc' in loc or 'expansionLoc' in loc:
            for part in ('spellingLoc', 'expansionLoc'):
                if 'file' in loc.get(part, {}):
                    self.file = loc[part]['file']
            return None
        if 'file' in loc:
            self.file = loc['file']
        return (self.file, loc['offset'], loc['tokLen']) if 'offset' in loc else None

    def span(self, node):
        """Sets node's '@' to (file, start, end) or None; each location of the tree passes here in order."""
        if 'loc' in node:
            self.place(node['loc'])
        span = node.get('range')
        if not span:
            return None
        begin, end = self.place(span['begin']), self.place(span['end'])
        if not begin or not end or begin[0] != end[0] or not begin[0].startswith(self.root):
            return None
        name = begin[0][len(self.root):]
        if name not in self.texts or not name.endswith(('.cc', '.hpp')):
            return None  # the C seam
        return name, begin[1], end[1] + end[2]

    def locate(self, node):
        stack = [node]
        while stack:
            at = stack.pop()
            at['@'] = self.span(at)
            stack.extend(child for child in reversed(at.get('inner', ())) if child)

    # Texts

    def text(self, span):
        return self.texts[span[0]][span[1]:span[2]].decode()

    def between(self, span, left, right, operator):
        """The offset of the operator between two operands, or None where other text stands there."""
        if not left or not right or left[0] != span[0] or right[0] != span[0]:
            return None
        gap = self.texts[span[0]][left[2]:right[1]]
        return left[2] + gap.index(operator) if gap.strip() == operator else None

    def add(self, span, kind, mutants, prefix, suffix, operator=None, outer=False):
        sites = self.sites.setdefault(span[0], {})
        site = Site(kind, span[1], span[2], mutants, prefix, suffix, operator, outer, self.constant)
        sites.setdefault(site.key(), site)

    # One method for each kind of site

    def binary(self, node, span):
        left, right = (child.get('@') for child in node['inner'][:2])
        opcode = node['opcode']
        at = self.between(span, left, right, opcode.encode())
        if at is None:
            return
        a, b = self.text((span[0], left[1], at)), self.text((span[0], at + len(opcode), right[2]))
        if opcode in ('&&', '||'):
            other, live = '||' if opcode == '&&' else '&&', f'{NS}live(NUMBER)'
            # ((a != live) && (b != live)) != live, which is a || b where live is true
            self.add(span, 'logical', [a + other + b], '(((static_cast<bool>(', f') != {live})) != {live})',
                     (at, 2, f') != {live}) {opcode} (static_cast<bool>('))
            return
        if opcode in RELATIONS:
            function, others = RELATIONS[opcode]
            kind = 'relation'
        elif opcode in ARITHMETIC:
            function, other = ARITHMETIC[opcode]
            kind, others = 'arithmetic', [other]
            types = [type_of(child) for child in node['inner'][:2]]
            if opcode == '-' and all('*' in kind_of for kind_of in types):
                return  # two pointers have no sum
        elif opcode in ASSIGNMENTS:
            function, other = ASSIGNMENTS[opcode]
            kind, others = 'assignment', [other]
        else:
            return
        self.add(span, kind, [a + other + b for other in others], f'{NS}{function}(NUMBER, ', ')',
                 (at, len(opcode), ','))

    def unary(self, node, span):
        opcode, text = node['opcode'], self.text(span)
        operand = node['inner'][0].get('@')
        if opcode == '!' and text.startswith('!'):
            self.add(span, 'not', [text[1:].lstrip()], '', f') == {NS}live(NUMBER))',
                     (span[1], 1, '(static_cast<bool>('))
        elif opcode in ('++', '--') and operand:
            after = bool(node.get('isPostfix'))
            function, other = STEPS[opcode, after]
            if after and text.endswith(opcode):
                self.add(span, 'step', [text[:-2] + other], f'{NS}{function}(NUMBER, ', '',
                         (span[2] - 2, 2, ')'))
            elif not after and text.startswith(opcode):
                self.add(span, 'step', [other + text[2:]], '', ')',
                         (span[1], 2, f'{NS}{function}(NUMBER, '))

    def number(self, node, span, target):
        value = int(node['value'])
        text = self.text(span)
        if target is None or not text[:1].isdigit():
            return
        changed = {0: '1', 1: '0'}.get(value, str(value + 1))
        self.add(span, 'number', [changed], f'{NS}number<{target}>(NUMBER, ', ')')

    def statement(self, node):
        """A statement of its own that is one call or assignment."""
        inside, span = node, node.get('@')
        while inside['kind'] in TRANSPARENT:
            inside = inside['inner'][0]
        if not span or span[2] > len(self.texts[span[0]]):
            return
        if inside['kind'] == 'CXXOperatorCallExpr':
            name = inside['inner'][0]
            while name['kind'] == 'ImplicitCastExpr':
                name = name['inner'][0]
            if not name.get('referencedDecl', {}).get('name', '').endswith('='):
                return
        elif inside['kind'] not in CALLS and inside['kind'] != 'CompoundAssignOperator' and \
                not (inside['kind'] == 'BinaryOperator' and inside['opcode'] == '='):
            return
        if not self.texts[span[0]][span[2]:].lstrip().startswith(b';'):
            return
        self.add(span, 'statement', [''], f'({NS}live(NUMBER) ? (void)0 : (void)(', '))', outer=True)

    def returned(self, node, function):
        value = node['inner'][0] if node.get('inner') else None
        if not value or not value.get('@'):
            return
        if type_of(value) != 'bool' and not (function.startswith('bool (') and 'dependent' in type_of(value)):
            return
        inside = value
        while inside['kind'] in TRANSPARENT or inside['kind'] == 'ParenExpr':
            inside = inside['inner'][0]
        if inside.get('opcode') in RELATIONS and inside['kind'] == 'BinaryOperator' or inside.get('opcode') == '!':
            return  # the negated operator is this mutant already
        span = value['@']
        text = self.text(span)
        changed = {'true': 'false', 'false': 'true'}.get(text, f'!({text})')
        self.add(span, 'return', [changed], '(static_cast<bool>(', f') != {NS}live(NUMBER))', outer=True)

    # The walk

    def walk(self, node, function, target):
        """function: the type of the one around node, '' outside of functions.
        target: the integer type that an implicit conversion gives a constant, None where it must stay.
        """
        kind = node.get('kind')
        if kind is None or kind in CONSTANT or kind.endswith('Attr'):
            return
        inner = [child for child in node.get('inner', ()) if child]
        if kind == 'VarDecl' and (node.get('constexpr') or not function or node.get('storageClass') == 'static'):
            return
        if kind == 'FieldDecl':
            self.constant = True
        if kind in FUNCTIONS:
            if node.get('consteval') or node.get('explicitlyDefaulted') or node.get('isImplicit'):
                return
            if not function:  # a lambda is of the function around it
                self.constant = bool(node.get('constexpr'))
            function = type_of(node)
        span = node.get('@')
        if span:
            if kind in ('BinaryOperator', 'CompoundAssignOperator'):
                self.binary(node, span)
            elif kind == 'UnaryOperator' and inner:
                self.unary(node, span)
            elif kind == 'IntegerLiteral':
                self.number(node, span, target or type_of(node))
                return
        if kind == 'ReturnStmt':
            self.returned(node, function)
        if kind in BODIES:
            for child in bodies(node, kind):
                self.statement(child)
        if kind == 'IfStmt' and node.get('isConstexpr'):
            inner = inner[1:]
        elif kind == 'CXXForRangeStmt':
            inner = inner[-1:]  # the rest is not in the text
        elif kind == 'FunctionTemplateDecl':
            inner = [child for child in inner if child['kind'] in FUNCTIONS][:1]  # without instantiations
        if kind == 'ImplicitCastExpr':
            cast = node.get('castKind')
            if cast in ('IntegralCast', 'IntegralToBoolean'):
                target = type_of(node) if type_of(node) in INTEGERS else None
                if target is None and inner and inner[0].get('kind') == 'IntegerLiteral':
                    return
            elif cast in ('NullToPointer', 'NullToMemberPointer'):
                return
        elif kind != 'ParenExpr':
            target = None
        if kind == 'CallExpr' and is_builtin(node):
            inner = [child for child in inner if child.get('kind') != 'IntegerLiteral' and
                     not (child.get('kind') == 'ImplicitCastExpr' and
                          child['inner'][0].get('kind') in ('IntegerLiteral', 'CXXBoolLiteralExpr'))]
        for child in inner:
            self.walk(child, function, target)


def type_of(node):
    """Without typedefs."""
    kind = node.get('type', {})
    return kind.get('desugaredQualType', kind.get('qualType', '')).removeprefix('const ')


def is_builtin(node):
    name = node['inner'][0]
    while name.get('kind') == 'ImplicitCastExpr':
        name = name['inner'][0]
    return name.get('referencedDecl', {}).get('name', '').startswith('__builtin_')


def bodies(node, kind):
    """The statements of a node, without conditions and what a for does at its ends."""
    inner = [child for child in node.get('inner', ()) if child]
    if kind == 'CompoundStmt':
        return inner
    if kind == 'IfStmt':
        return inner[-2:] if node.get('hasElse') else inner[-1:]
    if kind == 'DoStmt':
        return inner[:1]
    return inner[-1:]


def sites_of_unit(unit, root, texts, flags):
    """{file: {key: Site}} of what the unit compiles; SystemExit where clang rejects it."""
    command = ['clang++', '-fsyntax-only', '-w', '-Xclang', '-ast-dump=json', *flags, root + unit]
    run = subprocess.run(command, capture_output=True)
    if run.returncode:
        sys.stderr.write(run.stderr.decode())
        raise SystemExit(f'run: clang++ does not parse {unit}')
    tree = json.loads(run.stdout)
    finder = Finder(root, texts)
    finder.locate(tree)
    sys.setrecursionlimit(20000)
    finder.walk(tree, '', None)
    return finder.sites


def main(unit, root, result, *flags):
    """Writes the sites of a unit to a file, in a process of its own: trees are large."""
    texts = {path.relative_to(root).as_posix(): path.read_bytes() for path in Path(root).rglob('*.[ch]*')}
    found = sites_of_unit(unit, root, texts, flags)
    plain = {name: [vars(site) for site in of_file.values()] for name, of_file in found.items()}
    part = Path(result + '.part')
    part.write_text(json.dumps(plain))
    part.rename(result)
