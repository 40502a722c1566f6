# SPDX-License-Identifier: GPL-2.0-only
"""Reads recipes of Yocto as far as this project's use the language: assignments, overrides of append and package, require,
inherit, shell functions and inline Python. What it does not know is an error."""
import re

ASSIGNMENT = re.compile(r'^([A-Za-z0-9_\[\]:${}.-]+?)\s*(\?=|\+=|\.=|=\+|=)\s*"(.*)"$', re.S)
FUNCTION = re.compile(r"^([a-z_]+)(:append)?\(\) \{$")


class Utils:
    """bb.utils, as inline Python of the recipes calls it."""

    @staticmethod
    def contains(variable, words, true, false, data):
        return true if set(words.split()) <= set(data.get(variable).split()) else false


class Bb:
    utils = Utils


class Recipe:
    def __init__(self, path, layer, variables):
        self.variables = dict(variables)
        self.defaults = {}
        self.classes = []
        self.functions = {}
        self.layer = layer
        self.variables["PN"] = re.sub(r"_.*|\.bb$", "", path.rsplit("/", 1)[1])
        self.read(path)

    def read(self, path):
        with open(path, encoding="utf-8") as file:
            lines = file.read().replace("\\\n", "").split("\n")
        while lines:
            line = lines.pop(0)
            if not line.strip() or line.startswith("#"):
                continue
            if match := FUNCTION.match(line):
                body = []
                while lines[0] != "}":
                    body.append(lines.pop(0))
                lines.pop(0)
                self.functions[match[1] + (match[2] or "")] = "\n".join(body)
            elif line.startswith("require "):
                self.read(f"{self.layer}/{line.split()[1]}")
            elif line.startswith("inherit "):
                self.classes += line.split()[1:]
            elif match := ASSIGNMENT.match(line):
                self.assign(*match.groups())
            else:
                raise SyntaxError(f"{path}: {line}")

    def assign(self, name, how, value):
        name = self.expand(name)
        old = self.variables.get(name)
        if how == "?=":
            self.variables.setdefault(name, value)
        elif how == "=":
            self.variables[name] = value
        else:
            self.variables[name] = {
                "+=": f"{old or ''} {value}", "=+": f"{value} {old or ''}", ".=": f"{old or ''}{value}"}[how].strip()

    def get(self, name):
        return self.expand(self.variables.get(name, ""))

    def expand(self, text):
        """Variables and inline Python in text; an unknown variable is an error."""
        text = re.sub(r"\$\{@(.*?)\}", lambda match: str(eval(match[1], {"bb": Bb, "d": self})), text)
        while match := re.search(r"\$\{([A-Za-z0-9_]+)\}", text):
            if match[1] not in self.variables:
                raise NameError(f"{self.variables['PN']}: {match[1]} is not defined")
            text = text.replace(match[0], self.variables[match[1]])
        return text
