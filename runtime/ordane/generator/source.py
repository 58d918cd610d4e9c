"""The C++ source: the type objects, the stubs and the dispatch of calls."""
from generator.cpp import (element_type, enum_object, flat_name, held_type, initializer, method_parameters,
                           open_namespace, type_name)


def member_facts(kind, name):
    """The initializer of Ordane::Generated::MemberFacts for the member `name`."""
    fields = [f'.name = "{name}"', f".kind = Ordane::ValueKind::{kind.kind}"]
    if kind.list:
        fields.append(".list = true")
    if kind.optional:
        fields.append(".optional = true")
    if kind.kind == "Object":
        fields.append(f".objectType = &{element_type(kind)}::staticType")
    if kind.kind == "Enum":
        fields.append(f".enumType = &{enum_object(kind.base)}")
    if kind.kind == "Reference":
        fields.append(f'.referenceType = "{kind.schema.wire(kind.target) if kind.target else ""}"')
    return "{" + ", ".join(fields) + "}"


def member_table(schema, cpp_name, members):
    lines = ["template <>", f"struct MemberTable<{cpp_name}> {{"]
    if members:
        lines.append("    static constexpr Ordane::Member members[] = {")
        for name, kind in members:
            lines.append(f"        Describe<{cpp_name}, &{cpp_name}::{name}>({member_facts(kind, name)}),")
        lines.append("    };")
    lines.append("};")
    return lines


def type_object(prefix, cpp_name, wire, base, has_members, descendants, creator=None):
    members = f"Ordane::Generated::MemberTable<{cpp_name}>::members" if has_members else "{}"
    return [f"{prefix}const Ordane::DataObjectType {cpp_name}::staticType = {{",
            f'    "{wire}", {base}, {members}, {descendants},',
            f"    []() -> Tessim::Ref<Ordane::DataObject> {{ return Tessim::MakeRef<{cpp_name}>(); }}}};"]


def call_name(managed, method, suffix):
    return f"{flat_name(managed)}{method['name']}{suffix}"


def source(schema, header_name):
    space = "::".join(schema.namespace)
    out = ["// Generated from the API's description. Do not edit.", f'#include "{header_name}"', "",
           '#include "runtime/ordane/faults.h"', '#include "runtime/ordane/member.h"', "",
           open_namespace(schema.namespace), ""]
    if schema.enums:
        out.append("namespace Enums {")
        for name, enum in schema.enums.items():
            texts = ", ".join(f'"{value}"' for value in enum["values"])
            flat = flat_name(name)
            out += [f"static constexpr std::string_view texts{flat}[] = {{{texts}}};",
                    f'static constexpr Ordane::EnumType {flat} = {{"{name.rpartition(".")[2]}", texts{flat}}};']
        out += ["}  // namespace Enums", ""]
    # The parameters and results of methods.
    calls = []
    for managed, entry in schema.managed.items():
        for method in entry.get("methods", []):
            parameters = [(p["name"], p["parsed"]) for p in method.get("parameters", [])]
            calls.append((call_name(managed, method, "Request"), method["name"], parameters))
            result = [("returnval", method["result"])] if method["result"] else []
            calls.append((call_name(managed, method, "Response"), method["name"] + "Response", result))
    if calls:
        out.append("namespace Calls {")
        for cpp_name, _, members in calls:
            out += [f"struct {cpp_name} final : Ordane::DataObject {{",
                    "    static const Ordane::DataObjectType staticType;",
                    "    const Ordane::DataObjectType* GetDataObjectType() const override { return &staticType; }"]
            out += [f"    {held_type(kind)} {name}{initializer(kind)};" for name, kind in members]
            out += ["};"]
        out += ["}  // namespace Calls", ""]
    out += [f"}}  // namespace {space}", "", "namespace Ordane::Generated {"]
    if schema.enums:
        out.append(f"namespace Enums = {space}::Enums;")
    for name, entry in schema.types.items():
        members = [(member["name"], member["parsed"]) for member in entry.get("members", [])]
        out += member_table(schema, type_name(schema, name), members)
    for cpp_name, _, members in calls:
        out += member_table(schema, f"{space}::Calls::{cpp_name}", members)
    out += ["}  // namespace Ordane::Generated", ""]
    for name, entry in schema.types.items():
        cpp_name = type_name(schema, name)
        below = schema.descendants(name)
        descendants = "{}"
        if below:
            descendants = f"descendantsOf{flat_name(name)}"
            listed = ", ".join(f"&{type_name(schema, other)}::staticType" for other in below)
            out.append(f"static constexpr const Ordane::DataObjectType* {descendants}[] = {{{listed}}};")
        base = f"&{type_name(schema, entry['base'])}::staticType" if "base" in entry else "nullptr"
        out += type_object("constinit ", cpp_name, schema.wire(name), base, bool(entry.get("members")), descendants)
    out += ["", open_namespace(schema.namespace), ""]
    for cpp_name, wire, members in calls:
        out += type_object("constinit ", f"Calls::{cpp_name}", wire, "nullptr", bool(members), "{}")
    for managed, entry in schema.managed.items():
        out += managed_source(schema, managed, entry)
    listed = ", ".join(f"&{type_name(schema, name)}::staticType" for name in schema.types)
    out += [f"static constexpr const Ordane::DataObjectType* dataObjectTypes[] = {{{listed}}};",
            "std::span<const Ordane::DataObjectType* const> AllDataObjectTypes() { return dataObjectTypes; }", ""]
    if schema.managed:
        listed = ", ".join(f"&{type_name(schema, name)}::staticType" for name in schema.managed)
        out += [f"static constexpr const Ordane::ManagedType* managedTypes[] = {{{listed}}};",
                "std::span<const Ordane::ManagedType* const> AllManagedTypes() { return managedTypes; }", ""]
    out += [f"}}  // namespace {space}", ""]
    if schema.enums:
        out += ["namespace Ordane {"]
        for name in schema.enums:
            out += ["template <>", f"const EnumType* GetEnumType<{type_name(schema, name)}>() {{",
                    f"    return &{space}::{enum_object(name)};", "}"]
        out += ["}  // namespace Ordane", ""]
    return "\n".join(out)


def managed_source(schema, managed, entry):
    flat, cpp_name, wire = flat_name(managed), type_name(schema, managed), schema.wire(managed)
    methods = entry.get("methods", [])
    out = [f"static constexpr Ordane::MethodInfo methodsOf{flat}[] = {{"]
    for index, method in enumerate(methods):
        before = "true" if method.get("beforeLogin") else "false"
        out.append(f'    {{"{method["name"]}", &Calls::{call_name(managed, method, "Request")}::staticType, '
                   f'&Calls::{call_name(managed, method, "Response")}::staticType, {before}, {index}}},')
    out += ["};", f'constinit const Ordane::ManagedType {cpp_name}::staticType = {{"{wire}", methodsOf{flat}}};', ""]
    out += [f"Tessim::Ref<Ordane::DataObject> {cpp_name}::Dispatch(const Ordane::MethodInfo& method,",
            "    [[maybe_unused]] const Ordane::DataObject& request) {", "    switch (method.index) {"]
    for index, method in enumerate(methods):
        response = f"Calls::{call_name(managed, method, 'Response')}"
        arguments = []
        for parameter in method.get("parameters", []):
            access = f"in.{parameter['name']}"
            arguments.append(access + ".Get()" if parameter["parsed"].is_object else access)
        if method["result"]:
            arguments.append("response->returnval")
        out.append(f"        case {index}: {{")
        if method.get("parameters"):
            request = f"Calls::{call_name(managed, method, 'Request')}"
            out.append(f"            const auto& in = static_cast<const {request}&>(request);")
        out += [f"            const auto response = Tessim::MakeRef<{response}>();",
                f"            {method['name']}({', '.join(arguments)});", "            return response;", "        }"]
    out += ['        default: throw Ordane::Fault::InvalidRequest::Exception("no such method");', "    }", "}", ""]
    stub = f"{flat}Stub"
    parameters = "Tessim::Ref<Ordane::StubAdapter> adapter, const std::string& id"
    base = f'{managed.rpartition(".")[2]}(Tessim::MakeRef<Ordane::MoRef>("{wire}", id))'
    out += ["namespace {", f"class {stub} final : public {cpp_name} {{", "  public:",
            f"    {stub}({parameters})",
            f"        : {base}, adapter(std::move(adapter)) {{}}", ""]
    for index, method in enumerate(methods):
        request = f"Calls::{call_name(managed, method, 'Request')}"
        response = f"Calls::{call_name(managed, method, 'Response')}"
        out.append(f"    void {method['name']}({method_parameters(method)}) override {{")
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
            f"Tessim::Ref<{cpp_name}> {cpp_name}::MakeStub({parameters}) {{",
            f"    return Tessim::MakeRef<{stub}>(std::move(adapter), id);", "}", ""]
    return out
