"""The C++ names of types, members and methods, and the order in which classes can be declared."""
from generator.schema import SchemaError

SCALARS = {"Bool": "bool", "Int": "std::int32_t", "Long": "std::int64_t", "String": "std::string"}


# Types.

def namespace_of(schema, name):
    while schema.owner(name):
        name = schema.owner(name)
    return schema.namespace + name.split(".")[:-1]


def local_name(schema, name):
    """The name within its namespace."""
    owner = schema.owner(name)
    last = name.rpartition(".")[2]
    return f"{local_name(schema, owner)}::{last}" if owner else last


def type_name(schema, name):
    return "::".join(namespace_of(schema, name)) + "::" + local_name(schema, name)


def flat_name(name):
    return name.replace(".", "")


def enum_object(name):
    """The type object of an enumeration."""
    return f"Enums::{flat_name(name)}"


def root(schema, name):
    """The class that the class `name` is nested in, at any depth, or itself."""
    while schema.owner(name):
        name = schema.owner(name)
    return name


def needs(schema, name):
    """The classes whose definition must stand before that of `name` (with all that is nested in it)."""
    needed = set()
    for nested, entry in schema.types.items():
        if nested == name or nested.startswith(name + "."):
            if "base" in entry:
                needed.add(root(schema, entry["base"]))
            for member in entry.get("members", []):
                if member["parsed"].kind in ("Object", "Enum"):
                    needed.add(root(schema, member["parsed"].base))
    needed.discard(name)
    return needed


def ordered_roots(schema):
    """The classes that are nested in no other, each behind those that it needs."""
    done, order = set(), []

    def place(name, path):
        if name in done:
            return
        if name in path:
            raise SchemaError(f"{name} needs itself through {path}")
        for other in sorted(needs(schema, name)):
            place(other, path + [name])
        done.add(name)
        order.append(name)

    for name in (*schema.managed, *schema.types):
        if not schema.owner(name):
            place(name, [])
    return order


# Members, parameters and results; `kind` is a MemberType.

def element_type(kind):
    """The type of one value."""
    if kind.kind in ("Object", "Enum"):
        return type_name(kind.schema, kind.base)
    return "Ordane::MoRef" if kind.kind == "Reference" else SCALARS[kind.kind]


def held_type(kind):
    """The type that a class holds."""
    element = element_type(kind)
    if kind.is_object:
        return f"Tessim::Ref<Ordane::DataArray<{element}>>" if kind.list else f"Tessim::Ref<{element}>"
    if kind.list:
        return f"std::vector<{element}>"
    return f"std::optional<{element}>" if kind.optional else element


def parameter_type(kind):
    """The type that a getter returns and a parameter has."""
    element, held = element_type(kind), held_type(kind)
    if kind.is_object:
        return f"Ordane::DataArray<{element}>*" if kind.list else f"{element}*"
    if held in ("bool", "std::int32_t", "std::int64_t") or kind.kind == "Enum":
        return held
    return f"const {held}&"


def moved(kind, name):
    """The expression that moves the held value `name` where that is cheaper than a copy."""
    return f"std::move({name})" if kind.is_object or kind.list or kind.kind == "String" else name


def initializer(kind):
    """What follows the declaration of the held value."""
    if kind.is_object:
        array = f" = Tessim::MakeRef<Ordane::DataArray<{element_type(kind)}>>()"
        return array if kind.list and not kind.optional else ""
    return "" if kind.list or kind.optional or kind.kind == "String" else "{}"


def getter_name(member):
    name = member["name"]
    prefix = "Is" if member["parsed"].kind == "Bool" else "Get"
    return prefix + name[0].upper() + name[1:]


def setter_name(member):
    name = member["name"]
    return "Set" + name[0].upper() + name[1:]


def method_parameters(method):
    parts = [f"{parameter_type(p['parsed'])} {p['name']}" for p in method.get("parameters", [])]
    if method["result"]:
        parts.append(f"{held_type(method['result'])}& out")
    return ", ".join(parts)


def open_namespace(parts):
    return f"namespace {'::'.join(parts)} {{"
