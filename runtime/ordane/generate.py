#!/usr/bin/env python3
"""Turns a description of API types (see runtime/hask/api.yaml) into C++ or into the wire reference.

usage: generate.py header SCHEMA OUTPUT
       generate.py source SCHEMA OUTPUT HEADER
       generate.py wire OUTPUT SCHEMA...
"""
import re
import sys

import yaml

SCALARS = {"bool": ("bool", "Bool"), "int": ("std::int32_t", "Int"), "long": ("std::int64_t", "Long"),
           "string": ("std::string", "String")}
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
            raise SchemaError(f"{where}: '{text}' is no type")
        self.text = text
        self.base = match["base"]
        self.target = match["target"] or ""
        self.list = bool(match["list"])
        self.optional = bool(match["optional"])
        if self.base in SCALARS:
            self.kind = SCALARS[self.base][1]
        elif self.base == "ref":
            self.kind = "Reference"
            if self.target and self.target not in schema.managed:
                raise SchemaError(f"{where}: '{self.target}' is no managed type")
        elif self.base in schema.enums:
            self.kind = "Enum"
        elif self.base in schema.types:
            self.kind = "Object"
        else:
            raise SchemaError(f"{where}: '{self.base}' is no type of this description")
        self.schema = schema

    @property
    def is_object(self):
        return self.kind in ("Object", "Reference")

    @property
    def element(self):
        """The C++ type of one value."""
        if self.kind == "Object":
            return self.schema.cpp(self.base)
        if self.kind == "Reference":
            return "Ordane::MoRef"
        if self.kind == "Enum":
            return self.schema.cpp(self.base)
        return SCALARS[self.base][0]

    @property
    def held(self):
        """The C++ type that a class holds."""
        if self.is_object:
            return f"Tessim::Ref<Ordane::DataArray<{self.element}>>" if self.list else f"Tessim::Ref<{self.element}>"
        if self.list:
            return f"std::vector<{self.element}>"
        return f"std::optional<{self.element}>" if self.optional else self.element

    @property
    def given(self):
        """The C++ type that a getter returns and a parameter has."""
        if self.is_object:
            return f"Ordane::DataArray<{self.element}>*" if self.list else f"{self.element}*"
        if self.held in ("bool", "std::int32_t", "std::int64_t") or self.kind == "Enum":
            return self.held
        return f"const {self.held}&"

    def taken(self, name):
        """The C++ expression that takes the held value `name` over."""
        moves = self.is_object or self.list or self.kind == "String"
        return f"std::move({name})" if moves else name

    @property
    def initial(self):
        if self.is_object:
            return f" = Tessim::MakeRef<Ordane::DataArray<{self.element}>>()" if self.list and not self.optional else ""
        return "" if self.list or self.optional or self.kind == "String" else "{}"

    def facts(self, name):
        fields = [f'.name = "{name}"', f".kind = Ordane::ValueKind::{self.kind}"]
        if self.list:
            fields.append(".list = true")
        if self.optional:
            fields.append(".optional = true")
        if self.kind == "Object":
            fields.append(f".objectType = &{self.element}::staticType")
        if self.kind == "Enum":
            fields.append(f".enumType = &{self.schema.enum_object(self.base)}")
        if self.kind == "Reference":
            fields.append(f'.referenceType = "{self.schema.wire(self.target) if self.target else ""}"')
        return "{" + ", ".join(fields) + "}"


class Schema:
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
                raise SchemaError(f"{path}: {name}: base '{base}' is no type of this description")
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

    def namespace_of(self, name):
        while self.owner(name):
            name = self.owner(name)
        return self.namespace + name.split(".")[:-1]

    def local(self, name):
        """The name within its namespace."""
        owner = self.owner(name)
        last = name.rpartition(".")[2]
        return f"{self.local(owner)}::{last}" if owner else last

    def cpp(self, name):
        return "::".join(self.namespace_of(name)) + "::" + self.local(name)

    def flat(self, name):
        return name.replace(".", "")

    def wire(self, name):
        entry = self.types.get(name) or self.managed.get(name)
        return entry.get("wire", name.rpartition(".")[2])

    def enum_object(self, name):
        return f"Enums::{self.flat(name)}"

    def root(self, name):
        while self.owner(name):
            name = self.owner(name)
        return name

    def descendants(self, name):
        found = []
        for candidate, entry in self.types.items():
            base = entry.get("base")
            while base is not None:
                if base == name:
                    found.append(candidate)
                    break
                base = self.types[base].get("base")
        return found

    def needs(self, name):
        """The types whose definition must stand before the class `name` (with all that is nested in it)."""
        needed = set()
        for nested in self.types:
            if nested == name or nested.startswith(name + "."):
                entry = self.types[nested]
                if "base" in entry:
                    needed.add(self.root(entry["base"]))
                for member in entry.get("members", []):
                    kind = member["parsed"]
                    if kind.kind in ("Object", "Enum"):
                        needed.add(self.root(kind.base))
        needed.discard(name)
        return needed

    def ordered_roots(self):
        roots = [name for name in (*self.managed, *self.types) if not self.owner(name)]
        done, order = set(), []

        def place(name, path):
            if name in done:
                return
            if name in path:
                raise SchemaError(f"{name} needs itself through {path}")
            for other in sorted(self.needs(name)):
                place(other, path + [name])
            done.add(name)
            order.append(name)

        for name in roots:
            place(name, [])
        return order

    def nested(self, name):
        return [other for other in self.types if self.owner(other) == name]


def getter_name(member):
    name = member["name"]
    prefix = "Is" if member["parsed"].kind == "Bool" else "Get"
    return prefix + name[0].upper() + name[1:]


def setter_name(member):
    name = member["name"]
    return "Set" + name[0].upper() + name[1:]


def method_signature(method):
    parts = [f"{p['parsed'].given} {p['name']}" for p in method.get("parameters", [])]
    if method["result"]:
        parts.append(f"{method['result'].held}& out")
    return ", ".join(parts)


def emit_class(schema, name, out, pad):
    entry = schema.types.get(name)
    if name in schema.managed:
        emit_managed(schema, name, out, pad)
        return
    short = name.rpartition(".")[2]
    base = schema.cpp(entry["base"]) if "base" in entry else "Ordane::DataObject"
    members = entry.get("members", [])
    out.append(f"{pad}// {entry['doc']}")
    out.append(f"{pad}class {short} : public {base} {{")
    out.append(f"{pad}  public:")
    for nested in schema.nested(name):
        emit_class(schema, nested, out, pad + "    ")
        out.append("")
    out.append(f"{pad}    static const Ordane::DataObjectType staticType;")
    out.append(f"{pad}    static const Ordane::DataObjectType& StaticType() {{ return staticType; }}")
    out.append(f"{pad}    const Ordane::DataObjectType* GetDataObjectType() const override {{ return &staticType; }}")
    if entry.get("fault"):
        emit_fault(schema, name, entry, out, pad)
    for member in members:
        kind = member["parsed"]
        out.append("")
        out.append(f"{pad}    // {member['doc']}")
        if kind.is_object:
            out.append(f"{pad}    {kind.given} {getter_name(member)}() const {{ return {member['name']}.Get(); }}")
        else:
            out.append(f"{pad}    {kind.given} {getter_name(member)}() const {{ return {member['name']}; }}")
        out.append(f"{pad}    void {setter_name(member)}({kind.held} given) {{ {member['name']} = {kind.taken('given')}; }}")
    out.append("")
    out.append(f"{pad}  private:")
    out.append(f"{pad}    friend struct Ordane::Generated::MemberTable<{short}>;")
    for member in members:
        out.append(f"{pad}    {member['parsed'].held} {member['name']}{member['parsed'].initial};")
    out.append(f"{pad}}};")


def emit_fault(schema, name, entry, out, pad):
    short = name.rpartition(".")[2]
    root = "base" not in entry
    base = "Tessim::Exception" if root else schema.cpp(entry["base"]) + "::Exception"
    out.append("")
    out.append(f"{pad}    // The exception that this fault is thrown as. Its message is the fault's, or the fault's name.")
    out.append(f"{pad}    class Exception : public {base} {{")
    out.append(f"{pad}      public:")
    out.append(f"{pad}        explicit Exception(const std::string& message,")
    out.append(f"{pad}                           const Tessim::SourceLocation& where = Tessim::SourceLocation::current())")
    out.append(f"{pad}            : Exception(MakeFault(message), where) {{}}")
    taken = f"Tessim::Ref<{short}>" if root else f"const Tessim::Ref<{short}>&"
    out.append(f"{pad}        explicit Exception({taken} fault,")
    out.append(f"{pad}                           const Tessim::SourceLocation& where = Tessim::SourceLocation::current())")
    if root:
        out.append(f"{pad}            : {base}(fault->GetMessage().value_or(std::string(fault->GetDataObjectType()->name)), where),")
        out.append(f"{pad}              fault(std::move(fault)) {{}}")
        out.append(f"{pad}        // Never null; lives as long as the exception.")
        out.append(f"{pad}        {short}* GetFault() const {{ return fault.Get(); }}")
    else:
        out.append(f"{pad}            : {base}(Tessim::Ref<{schema.cpp(entry['base'])}>(fault), where) {{}}")
    out.append("")
    out.append(f"{pad}      private:")
    out.append(f"{pad}        static Tessim::Ref<{short}> MakeFault(const std::string& message) {{")
    out.append(f"{pad}            Tessim::Ref<{short}> fault = Tessim::MakeRef<{short}>();")
    out.append(f"{pad}            fault->SetMessage(message);")
    out.append(f"{pad}            return fault;")
    out.append(f"{pad}        }}")
    if root:
        out.append(f"{pad}        Tessim::Ref<{short}> fault;")
    out.append(f"{pad}    }};")
    out.append("")
    before, after = ("virtual ", "") if root else ("", " override")
    out.append(f"{pad}    // Throws the fault as its exception.")
    out.append(f"{pad}    [[noreturn]] {before}void Throw(")
    out.append(f"{pad}        const Tessim::SourceLocation& where = Tessim::SourceLocation::current()){after} {{")
    out.append(f"{pad}        throw Exception(Tessim::Ref<{short}>(this), where);")
    out.append(f"{pad}    }}")


def emit_managed(schema, name, out, pad):
    entry = schema.managed[name]
    short = name.rpartition(".")[2]
    out.append(f"{pad}// {entry['doc']}")
    out.append(f"{pad}class {short} : public Ordane::ManagedObject {{")
    out.append(f"{pad}  public:")
    for enum in entry.get("enums", []):
        out.append(f"{pad}    // {enum['doc']}")
        values = ", ".join(enum["values"])
        out.append(f"{pad}    enum class {enum['name']} : int {{ {values} }};")
        out.append("")
    for nested in schema.nested(name):
        emit_class(schema, nested, out, pad + "    ")
        out.append("")
    out.append(f"{pad}    using ManagedObject::ManagedObject;")
    out.append(f"{pad}    static const Ordane::ManagedType staticType;")
    out.append(f"{pad}    const Ordane::ManagedType* GetManagedType() const override {{ return &staticType; }}")
    out.append(f"{pad}    Tessim::Ref<Ordane::DataObject> Dispatch(const Ordane::MethodInfo& method,")
    out.append(f"{pad}                                             const Ordane::DataObject& request) override;")
    out.append(f"{pad}    // A stub that carries the calls of the object `id` over `adapter`.")
    out.append(f"{pad}    static Tessim::Ref<{short}> MakeStub(Tessim::Ref<Ordane::StubAdapter> adapter, const std::string& id);")
    for method in entry.get("methods", []):
        out.append("")
        out.append(f"{pad}    // {method['doc']}")
        out.append(f"{pad}    virtual void {method['name']}({method_signature(method)}) = 0;")
    out.append(f"{pad}}};")


def open_namespace(parts):
    return f"namespace {'::'.join(parts)} {{"


def header(schema):
    space = "::".join(schema.namespace)
    out = ["// Generated from the API's description. Do not edit.", "#pragma once", "",
           "#include <cstdint>", "#include <optional>", "#include <span>", "#include <string>",
           "#include <utility>", "#include <vector>", "",
           '#include "runtime/ordane/objects.h"', '#include "runtime/ordane/stub_adapter.h"',
           '#include "runtime/tessim/exception.h"', "",
           "namespace Ordane::Generated {", "template <class T>", "struct MemberTable;", "}  // namespace Ordane::Generated", ""]
    for name in schema.ordered_roots():
        out += [open_namespace(schema.namespace_of(name)), f"class {name.rpartition('.')[2]};", "}"]
    for name in schema.ordered_roots():
        out.append("")
        out.append(open_namespace(schema.namespace_of(name)))
        emit_class(schema, name, out, "")
        out.append(f"}}  // namespace {'::'.join(schema.namespace_of(name))}")
    out += ["", open_namespace(schema.namespace), "// Every data type of this description.",
            "std::span<const Ordane::DataObjectType* const> AllDataObjectTypes();"]
    if schema.managed:
        out += ["// Every managed type of this description.",
                "std::span<const Ordane::ManagedType* const> AllManagedTypes();"]
    out += [f"}}  // namespace {space}", ""]
    if schema.enums:
        out += ["namespace Ordane {"]
        for name in schema.enums:
            out += ["template <>", f"const EnumType* GetEnumType<{schema.cpp(name)}>();"]
        out += ["}  // namespace Ordane", ""]
    return "\n".join(out)


def table(schema, cpp_name, members):
    lines = ["template <>", f"struct MemberTable<{cpp_name}> {{"]
    if members:
        lines.append("    static constexpr Ordane::Member members[] = {")
        for name, kind in members:
            lines.append(f"        Describe<{cpp_name}, &{cpp_name}::{name}>({kind.facts(name)}),")
        lines.append("    };")
    lines.append("};")
    return lines


def type_object(prefix, cpp_name, wire, base, has_members, descendants, creator=None):
    members = f"Ordane::Generated::MemberTable<{cpp_name}>::members" if has_members else "{}"
    return [f"{prefix}const Ordane::DataObjectType {cpp_name}::staticType = {{",
            f'    "{wire}", {base}, {members}, {descendants},',
            f"    []() -> Tessim::Ref<Ordane::DataObject> {{ return Tessim::MakeRef<{cpp_name}>(); }}}};"]


def call_name(schema, managed, method, suffix):
    return f"{schema.flat(managed)}{method['name']}{suffix}"


def source(schema, header_name):
    space = "::".join(schema.namespace)
    out = ["// Generated from the API's description. Do not edit.", f'#include "{header_name}"', "",
           '#include "runtime/ordane/faults.h"', '#include "runtime/ordane/member.h"', "", open_namespace(schema.namespace), ""]
    if schema.enums:
        out.append("namespace Enums {")
        for name, enum in schema.enums.items():
            texts = ", ".join(f'"{value}"' for value in enum["values"])
            flat = schema.flat(name)
            out += [f"static constexpr std::string_view texts{flat}[] = {{{texts}}};",
                    f'static constexpr Ordane::EnumType {flat} = {{"{name.rpartition(".")[2]}", texts{flat}}};']
        out += ["}  // namespace Enums", ""]
    # The parameters and results of methods.
    calls = []
    for managed, entry in schema.managed.items():
        for method in entry.get("methods", []):
            parameters = [(p["name"], p["parsed"]) for p in method.get("parameters", [])]
            calls.append((call_name(schema, managed, method, "Request"), method["name"], parameters))
            result = [("returnval", method["result"])] if method["result"] else []
            calls.append((call_name(schema, managed, method, "Response"), method["name"] + "Response", result))
    if calls:
        out.append("namespace Calls {")
        for cpp_name, _, members in calls:
            out += [f"struct {cpp_name} final : Ordane::DataObject {{",
                    "    static const Ordane::DataObjectType staticType;",
                    "    const Ordane::DataObjectType* GetDataObjectType() const override { return &staticType; }"]
            out += [f"    {kind.held} {name}{kind.initial};" for name, kind in members]
            out += ["};"]
        out += ["}  // namespace Calls", ""]
    out += [f"}}  // namespace {space}", "", "namespace Ordane::Generated {"]
    if schema.enums:
        out.append(f"namespace Enums = {space}::Enums;")
    for name, entry in schema.types.items():
        out += table(schema, schema.cpp(name), [(m["name"], m["parsed"]) for m in entry.get("members", [])])
    for cpp_name, _, members in calls:
        out += table(schema, f"{space}::Calls::{cpp_name}", members)
    out += ["}  // namespace Ordane::Generated", ""]
    for name, entry in schema.types.items():
        cpp_name = schema.cpp(name)
        below = schema.descendants(name)
        descendants = "{}"
        if below:
            descendants = f"descendantsOf{schema.flat(name)}"
            listed = ", ".join(f"&{schema.cpp(other)}::staticType" for other in below)
            out.append(f"static constexpr const Ordane::DataObjectType* {descendants}[] = {{{listed}}};")
        base = f"&{schema.cpp(entry['base'])}::staticType" if "base" in entry else "nullptr"
        out += type_object("constinit ", cpp_name, schema.wire(name), base, bool(entry.get("members")), descendants)
    out += ["", open_namespace(schema.namespace), ""]
    for cpp_name, wire, members in calls:
        out += type_object("constinit ", f"Calls::{cpp_name}", wire, "nullptr", bool(members), "{}")
    for managed, entry in schema.managed.items():
        out += managed_source(schema, managed, entry)
    listed = ", ".join(f"&{schema.cpp(name)}::staticType" for name in schema.types)
    out += [f"static constexpr const Ordane::DataObjectType* dataObjectTypes[] = {{{listed}}};",
            "std::span<const Ordane::DataObjectType* const> AllDataObjectTypes() { return dataObjectTypes; }", ""]
    if schema.managed:
        listed = ", ".join(f"&{schema.cpp(name)}::staticType" for name in schema.managed)
        out += [f"static constexpr const Ordane::ManagedType* managedTypes[] = {{{listed}}};",
                "std::span<const Ordane::ManagedType* const> AllManagedTypes() { return managedTypes; }", ""]
    out += [f"}}  // namespace {space}", ""]
    if schema.enums:
        out += ["namespace Ordane {"]
        for name in schema.enums:
            out += ["template <>", f"const EnumType* GetEnumType<{schema.cpp(name)}>() {{",
                    f"    return &{space}::{schema.enum_object(name)};", "}"]
        out += ["}  // namespace Ordane", ""]
    return "\n".join(out)


def managed_source(schema, managed, entry):
    flat, cpp_name, wire = schema.flat(managed), schema.cpp(managed), schema.wire(managed)
    methods = entry.get("methods", [])
    out = [f"static constexpr Ordane::MethodInfo methodsOf{flat}[] = {{"]
    for index, method in enumerate(methods):
        before = "true" if method.get("beforeLogin") else "false"
        out.append(f'    {{"{method["name"]}", &Calls::{call_name(schema, managed, method, "Request")}::staticType, '
                   f'&Calls::{call_name(schema, managed, method, "Response")}::staticType, {before}, {index}}},')
    out += ["};", f'constinit const Ordane::ManagedType {cpp_name}::staticType = {{"{wire}", methodsOf{flat}}};', ""]
    out += [f"Tessim::Ref<Ordane::DataObject> {cpp_name}::Dispatch(const Ordane::MethodInfo& method,",
            "    [[maybe_unused]] const Ordane::DataObject& request) {", "    switch (method.index) {"]
    for index, method in enumerate(methods):
        response = f"Calls::{call_name(schema, managed, method, 'Response')}"
        arguments = []
        for parameter in method.get("parameters", []):
            access = f"in.{parameter['name']}"
            arguments.append(access + ".Get()" if parameter["parsed"].is_object else access)
        if method["result"]:
            arguments.append("response->returnval")
        out.append(f"        case {index}: {{")
        if method.get("parameters"):
            request = f"Calls::{call_name(schema, managed, method, 'Request')}"
            out.append(f"            const auto& in = static_cast<const {request}&>(request);")
        out += [f"            const auto response = Tessim::MakeRef<{response}>();",
                f"            {method['name']}({', '.join(arguments)});", "            return response;", "        }"]
    out += ['        default: throw Ordane::Fault::InvalidRequest::Exception("no such method");', "    }", "}", ""]
    stub = f"{flat}Stub"
    out += ["namespace {", f"class {stub} final : public {cpp_name} {{", "  public:",
            f"    {stub}(Tessim::Ref<Ordane::StubAdapter> adapter, const std::string& id)",
            f'        : {managed.rpartition(".")[2]}(Tessim::MakeRef<Ordane::MoRef>("{wire}", id)), adapter(std::move(adapter)) {{}}', ""]
    for index, method in enumerate(methods):
        request = f"Calls::{call_name(schema, managed, method, 'Request')}"
        response = f"Calls::{call_name(schema, managed, method, 'Response')}"
        out.append(f"    void {method['name']}({method_signature(method)}) override {{")
        out.append(f"        const auto request = Tessim::MakeRef<{request}>();")
        for parameter in method.get("parameters", []):
            out.append(f"        request->{parameter['name']} = {parameter['name']};")
        call = f"adapter->Invoke(*GetMoRef(), methodsOf{flat}[{index}], *request)"
        if method["result"]:
            out += [f"        const auto response = {call};",
                    f"        out = static_cast<const {response}&>(*response).returnval;"]
        else:
            out.append(f"        {call};")
        out.append("    }")
    out += ["", "  private:", "    Tessim::Ref<Ordane::StubAdapter> adapter;", "};", "}  // namespace", "",
            f"Tessim::Ref<{cpp_name}> {cpp_name}::MakeStub(Tessim::Ref<Ordane::StubAdapter> adapter, const std::string& id) {{",
            f"    return Tessim::MakeRef<{stub}>(std::move(adapter), id);", "}", ""]
    return out


def wire_type(kind, schema):
    name = kind.base
    if kind.kind in ("Object", "Enum"):
        name = schema.wire(kind.base) if kind.kind == "Object" else kind.base.rpartition(".")[2]
    elif kind.kind == "Reference":
        name = f"reference to {schema.wire(kind.target)}" if kind.target else "reference"
    return ("list of " if kind.list else "") + name + (", optional" if kind.optional else "")


def wire_reference(schemas):
    out = ["# Types and methods on the wire", "",
           "Generated by `runtime/ordane/generate.py wire docs/wire-types.md runtime/ordane/faults.yaml runtime/hask/api.yaml`;",
           "a test keeps it true. How calls travel is in [wire.md](wire.md). `int` has 32 bits, `long` 64.", "", "## Methods", "",
           "| object | method | parameters | result | before login | |", "|---|---|---|---|---|---|"]
    for schema in schemas:
        for managed, entry in schema.managed.items():
            for method in entry.get("methods", []):
                parameters = ", ".join(f"{p['name']}: {wire_type(p['parsed'], schema)}" for p in method.get("parameters", []))
                result = wire_type(method["result"], schema) if method["result"] else ""
                before = "yes" if method.get("beforeLogin") else ""
                out.append(f"| {schema.wire(managed)} | {method['name']} | {parameters} | {result} | {before} | {method['doc']} |")
    out += ["", "## Enumerations", "", "| enumeration | values, from 0 | |", "|---|---|---|"]
    for schema in schemas:
        for name, enum in schema.enums.items():
            out.append(f"| {enum['name']} | {', '.join(enum['values'])} | {enum['doc']} |")
    out += ["", "## Data types", "", "Members of the base come first, in the order given.", ""]
    for schema in schemas:
        for name, entry in schema.types.items():
            base = f" ({schema.wire(entry['base'])})" if "base" in entry else ""
            out.append(f"- **{schema.wire(name)}**{base}: {entry['doc']}")
            for member in entry.get("members", []):
                out.append(f"  - `{member['name']}`: {wire_type(member['parsed'], schema)}. {member['doc']}")
    return "\n".join(out) + "\n"


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def main(arguments):
    try:
        if arguments[:1] == ["wire"] and len(arguments) >= 3:
            write(arguments[1], wire_reference([Schema(path) for path in arguments[2:]]))
        elif arguments[:1] == ["header"] and len(arguments) == 3:
            write(arguments[2], header(Schema(arguments[1])))
        elif arguments[:1] == ["source"] and len(arguments) == 4:
            write(arguments[2], source(Schema(arguments[1]), arguments[3]))
        else:
            sys.exit(__doc__)
    except (SchemaError, yaml.YAMLError) as error:
        sys.exit(f"generate.py: {error}")


if __name__ == "__main__":
    main(sys.argv[1:])
