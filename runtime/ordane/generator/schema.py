"""The description of API types (see runtime/hask/api.yaml): parsed and checked."""
import re

import yaml

# The kinds of the scalar types.
SCALARS = {"bool": "Bool", "int": "Int", "long": "Long", "string": "String"}
TYPE_PATTERN = re.compile(r"^(?P<base>[A-Za-z.]+)(?:\((?P<target>[A-Za-z.]+)\))?(?P<list>\[\])?(?P<optional>\?)?$")


# The fields that each kind of entry must have, and those that it may have.
FIELDS = {"description": ({"namespace"}, {"types", "managed"}),
          "type": ({"name", "doc"}, {"wire", "base", "fault", "members"}),
          "managed type": ({"name", "doc"}, {"wire", "enums", "methods"}),
          "enumeration": ({"name", "doc", "values"}, set()),
          "method": ({"name", "doc"}, {"beforeLogin", "parameters", "returns"}),
          "member": ({"name", "type", "doc"}, set())}


class SchemaError(Exception):
    pass


def check_fields(kind, entry, where):
    """Refuses a misspelt field, which would otherwise be missing on the wire."""
    required, optional = FIELDS[kind]
    kind = f"an {kind}" if kind[0] in "aeiou" else f"a {kind}"
    for field in sorted(required - entry.keys()):
        raise SchemaError(f"{where}: {kind} without '{field}'")
    for field in sorted(entry.keys() - required - optional):
        raise SchemaError(f"{where}: {kind} has no '{field}'")


def by_name(kind, entries, path):
    """The entries by their names, in their order."""
    named = {}
    for entry in entries:
        where = f"{path}: {entry.get('name', 'without a name')}"
        check_fields(kind, entry, where)
        if entry["name"] in named:
            raise SchemaError(f"{where}: declared twice")
        named[entry["name"]] = entry
    return named


class MemberType:
    """A member's, parameter's or result's type as the schema writes it."""

    def __init__(self, text, schema, where):
        match = TYPE_PATTERN.match(text)
        if not match:
            raise SchemaError(f"{where}: '{text}' is not a type")
        self.text = text
        self.base = match["base"]
        self.target = match["target"] or ""
        self.list = bool(match["list"])
        self.optional = bool(match["optional"])
        if self.base in SCALARS:
            self.kind = SCALARS[self.base]
        elif self.base == "ref":
            self.kind = "Reference"
            if self.target and self.target not in schema.managed:
                raise SchemaError(f"{where}: '{self.target}' is not a managed type")
        elif self.base in schema.enums:
            self.kind = "Enum"
        elif self.base in schema.types:
            self.kind = "Object"
        else:
            raise SchemaError(f"{where}: '{self.base}' is not a type of this description")
        self.schema = schema

    @property
    def is_object(self):
        return self.kind in ("Object", "Reference")


class Schema:
    """One description: its types, managed types and enumerations by their dotted names, in their order. Each member and
    parameter has its MemberType as "parsed", each method that of its result, or None, as "result"."""

    def __init__(self, path):
        with open(path, encoding="utf-8") as file:
            document = yaml.safe_load(file)
        check_fields("description", document, path)
        self.namespace = document["namespace"].split(".")
        self.types = by_name("type", document.get("types", []), path)
        self.managed = by_name("managed type", document.get("managed", []), path)
        self.enums = {}
        for name, entry in self.managed.items():
            for enum in by_name("enumeration", entry.get("enums", []), f"{path}: {name}").values():
                self.enums[f"{name}.{enum['name']}"] = enum
        for name, entry in self.types.items():
            for member in by_name("member", entry.get("members", []), f"{path}: {name}").values():
                member["parsed"] = MemberType(member["type"], self, f"{path}: {name}.{member['name']}")
            base = entry.get("base")
            if base is not None and base not in self.types:
                raise SchemaError(f"{path}: {name}: base '{base}' is not a type of this description")
        for name, entry in self.managed.items():
            for method in by_name("method", entry.get("methods", []), f"{path}: {name}").values():
                where = f"{path}: {name}.{method['name']}"
                for parameter in by_name("member", method.get("parameters", []), where).values():
                    parameter["parsed"] = MemberType(parameter["type"], self, where)
                method["result"] = MemberType(method["returns"], self, where) if "returns" in method else None
                if method["result"] and not method["result"].is_object:
                    raise SchemaError(f"{where}: results are objects or references")
        wires = [self.wire(name) for name in (*self.types, *self.managed)]
        for wire in wires:
            if wires.count(wire) > 1 and not (wire in self.types and wire in self.managed):
                raise SchemaError(f"{path}: two types are called '{wire}' on the wire")

    def owner(self, name):
        """The class that `name` is nested in, or None."""
        prefix = name.rpartition(".")[0]
        return prefix if prefix in self.types or prefix in self.managed else None

    def wire(self, name):
        """The name of a type on the wire."""
        entry = self.types.get(name) or self.managed.get(name)
        return entry.get("wire", name.rpartition(".")[2])

    def nested(self, name):
        """The types that are nested directly in the class `name`."""
        return [other for other in self.types if self.owner(other) == name]

    def descendants(self, name):
        """The types with `name` among their bases."""
        found = []
        for candidate, entry in self.types.items():
            base = entry.get("base")
            while base is not None:
                if base == name:
                    found.append(candidate)
                    break
                base = self.types[base].get("base")
        return found
