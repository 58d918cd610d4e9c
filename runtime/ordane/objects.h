// Data objects, their arrays, references to managed objects, and managed objects.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "runtime/ordane/type.h"

namespace Ordane {

// A value with members. The classes are generated from the API's description.
class DataObject : public Any {
  public:
    virtual const DataObjectType* GetDataObjectType() const = 0;
};

// The name of a managed object: its type and its id, as the server gave them.
class MoRef final : public Any {
  public:
    MoRef(std::string type, std::string id) : type(std::move(type)), id(std::move(id)) {}

    const std::string& GetType() const { return type; }
    const std::string& GetId() const { return id; }

  private:
    std::string type;
    std::string id;
};

// A growing list of objects. An element may be null.
template <class T>
class DataArray final : public Any {
  public:
    int GetLength() const { return static_cast<int>(elements.size()); }
    // The element at `index`, which must be below the length; the array keeps its reference.
    T* operator[](int index) const { return elements[static_cast<std::size_t>(index)].Get(); }
    void Append(Tessim::Ref<T> element) { elements.push_back(std::move(element)); }
    // Makes room for `length` elements in all.
    void Reserve(int length) { elements.reserve(static_cast<std::size_t>(length)); }
    void Clear() { elements.clear(); }

    auto begin() const { return elements.begin(); }
    auto end() const { return elements.end(); }

  private:
    std::vector<Tessim::Ref<T>> elements;
};

// An object that lives in the server: there the object itself, in the client a stub that carries its calls.
class ManagedObject : public Any {
  public:
    explicit ManagedObject(Tessim::Ref<MoRef> reference) : reference(std::move(reference)) {}

    // Never null.
    MoRef* GetMoRef() const { return reference.Get(); }
    virtual const ManagedType* GetManagedType() const = 0;
    // Calls the method with the parameters in `request`, the method's request object, and returns its
    // response object, never null. `method` must be one of this object's type. Throws what the method throws.
    virtual Tessim::Ref<DataObject> Dispatch(const MethodInfo& method, const DataObject& request) = 0;

  private:
    Tessim::Ref<MoRef> reference;
};

}  // namespace Ordane
