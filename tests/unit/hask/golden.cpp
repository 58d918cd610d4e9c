#include "tests/unit/hask/golden.h"

#include "tests/support/files.h"

namespace HaskTest {

namespace {

// A message is one line of its file.
std::string ReadMessage(const std::string& name) {
    std::string text = ReadGolden(name);
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    return text;
}

}  // namespace

std::string ReadGolden(const std::string& name) {
    return TestSupport::ReadFile(std::string(HASK_GOLDEN_DIR) + "/" + name);
}

std::vector<std::string> ListGolden(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& file : TestSupport::ListFiles(std::string(HASK_GOLDEN_DIR) + "/" + folder)) {
        names.push_back(file.filename().string());
    }
    return names;
}

std::vector<const Ordane::DataObjectType*> AllTypes() {
    std::vector<const Ordane::DataObjectType*> types;
    for (const auto& some : {Hask::AllDataObjectTypes(), Ordane::Fault::AllDataObjectTypes()}) {
        types.insert(types.end(), some.begin(), some.end());
    }
    return types;
}

std::string Call::GetName() const {
    return std::string(object->name) + "." + std::string(method->name);
}

std::string Call::ReadRequest() const {
    return ReadMessage("calls/" + GetName() + ".request.xml");
}

std::string Call::ReadResponse() const {
    return ReadMessage("calls/" + GetName() + ".response.xml");
}

std::vector<Call> AllCalls() {
    std::vector<Call> calls;
    for (const Ordane::ManagedType* object : Hask::AllManagedTypes()) {
        for (const Ordane::MethodInfo& method : object->methods) {
            calls.push_back({object, &method});
        }
    }
    return calls;
}

}  // namespace HaskTest
