"""The C++ header: the data classes, faults, enumerations and managed objects."""
from generator.cpp import (getter_name, held_type, initializer, method_parameters, moved, namespace_of, open_namespace,
                           ordered_roots, parameter_type, setter_name, type_name)


def emit_class(schema, name, out, pad):
    entry = schema.types.get(name)
    if name in schema.managed:
        emit_managed(schema, name, out, pad)
        return
    short = name.rpartition(".")[2]
    base = type_name(schema, entry["base"]) if "base" in entry else "Ordane::DataObject"
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
        field = member["name"]
        held = f"{field}.Get()" if kind.is_object else field
        assignment = f"{field} = {moved(kind, 'given')};"
        out.append(f"{pad}    {parameter_type(kind)} {getter_name(member)}() const {{ return {held}; }}")
        out.append(f"{pad}    void {setter_name(member)}({held_type(kind)} given) {{ {assignment} }}")
    out.append("")
    out.append(f"{pad}  private:")
    out.append(f"{pad}    friend struct Ordane::Generated::MemberTable<{short}>;")
    for member in members:
        out.append(f"{pad}    {held_type(member['parsed'])} {member['name']}{initializer(member['parsed'])};")
    out.append(f"{pad}}};")


def emit_fault(schema, name, entry, out, pad):
    short = name.rpartition(".")[2]
    root = "base" not in entry
    base = "Tessim::Exception" if root else type_name(schema, entry["base"]) + "::Exception"
    out.append("")
    where = "const Tessim::SourceLocation& where = Tessim::SourceLocation::current()"
    out.append(f"{pad}    // The exception that this fault is thrown as."
               " Its message is the fault's, or the fault's name.")
    out.append(f"{pad}    class Exception : public {base} {{")
    out.append(f"{pad}      public:")
    out.append(f"{pad}        explicit Exception(const std::string& message,")
    out.append(f"{pad}                           {where})")
    out.append(f"{pad}            : Exception(MakeFault(message), where) {{}}")
    taken = f"Tessim::Ref<{short}>" if root else f"const Tessim::Ref<{short}>&"
    out.append(f"{pad}        explicit Exception({taken} fault,")
    out.append(f"{pad}                           {where})")
    if root:
        message = "fault->GetMessage().value_or(std::string(fault->GetDataObjectType()->name))"
        out.append(f"{pad}            : {base}({message}, where),")
        out.append(f"{pad}              fault(std::move(fault)) {{}}")
        out.append(f"{pad}        // Never null; lives as long as the exception.")
        out.append(f"{pad}        {short}* GetFault() const {{ return fault.Get(); }}")
    else:
        out.append(f"{pad}            : {base}(Tessim::Ref<{type_name(schema, entry['base'])}>(fault), where) {{}}")
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
    parameters = "Tessim::Ref<Ordane::StubAdapter> adapter, const std::string& id"
    out.append(f"{pad}    static Tessim::Ref<{short}> MakeStub({parameters});")
    for method in entry.get("methods", []):
        out.append("")
        out.append(f"{pad}    // {method['doc']}")
        out.append(f"{pad}    virtual void {method['name']}({method_parameters(method)}) = 0;")
    out.append(f"{pad}}};")


def header(schema):
    space = "::".join(schema.namespace)
    out = ["// Generated from the API's description. Do not edit.", "#pragma once", "",
           "#include <cstdint>", "#include <optional>", "#include <span>", "#include <string>",
           "#include <utility>", "#include <vector>", "",
           '#include "runtime/ordane/objects.h"', '#include "runtime/ordane/stub_adapter.h"',
           '#include "runtime/tessim/exception.h"', "",
           "namespace Ordane::Generated {", "template <class T>", "struct MemberTable;",
           "}  // namespace Ordane::Generated", ""]
    for name in ordered_roots(schema):
        out += [open_namespace(namespace_of(schema, name)), f"class {name.rpartition('.')[2]};", "}"]
    for name in ordered_roots(schema):
        out.append("")
        out.append(open_namespace(namespace_of(schema, name)))
        emit_class(schema, name, out, "")
        out.append(f"}}  // namespace {'::'.join(namespace_of(schema, name))}")
    out += ["", open_namespace(schema.namespace), "// Every data type of this description.",
            "std::span<const Ordane::DataObjectType* const> AllDataObjectTypes();"]
    if schema.managed:
        out += ["// Every managed type of this description.",
                "std::span<const Ordane::ManagedType* const> AllManagedTypes();"]
    out += [f"}}  // namespace {space}", ""]
    if schema.enums:
        out += ["namespace Ordane {"]
        for name in schema.enums:
            out += ["template <>", f"const EnumType* GetEnumType<{type_name(schema, name)}>();"]
        out += ["}  // namespace Ordane", ""]
    return "\n".join(out)
