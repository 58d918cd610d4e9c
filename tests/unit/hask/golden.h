// The golden wire samples: golden/<type>.xml holds an object of each data type in which every member is set,
// golden/calls/<type>.<method>.request.xml and .response.xml the messages of each method.
#pragma once

#include <string>
#include <vector>

#include "runtime/hask/api.h"
#include "runtime/ordane/faults.h"

namespace HaskTest {

// A file below golden/, whole.
std::string ReadGolden(const std::string& name);
// The names of the files in a folder below golden/, in order; "" is golden/ itself.
std::vector<std::string> ListGolden(const std::string& folder);

// Every data type of the API and of its faults.
std::vector<const Ordane::DataObjectType*> AllTypes();

struct Call {
    const Ordane::ManagedType* object;
    const Ordane::MethodInfo* method;

    // As the golden files are called: "Folder.GetChildEntity".
    std::string GetName() const;
    // The messages, as they travel.
    std::string ReadRequest() const;
    std::string ReadResponse() const;
};

// Every method of the API.
std::vector<Call> AllCalls();

}  // namespace HaskTest
