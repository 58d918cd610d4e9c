#include "runtime/ordane/dispatcher.h"

#include <new>

#include "runtime/ordane/xml_codec.h"
#include "runtime/tessim/exception.h"

namespace Ordane {

namespace {

struct Call {
    Tessim::Ref<ManagedObject> object;
    const MethodInfo* method;
    Tessim::Ref<DataObject> request;
};

Call Read(std::string_view text, ObjectSource& source, const Soap::Limits& limits) try {
    const Soap::Message message(text, limits);
    const Tessim::Ref<MoRef> target = message.GetTarget();
    const std::string name = message.GetName();
    // Without a session the reply must not show which objects exist.
    Tessim::Ref<ManagedObject> object = source.Find(*target);
    const MethodInfo* method = object ? object->GetManagedType()->FindMethod(name) : nullptr;
    MethodInfo::CheckSession(method, source.IsLoggedIn());
    if (!object) {
        const auto fault = Tessim::MakeRef<Fault::ManagedObjectNotFound>();
        fault->SetMessage("no " + Xml::EscapeName(target->GetType()) + " " +
                          Xml::EscapeName(target->GetId()));
        fault->SetObj(target);
        fault->Throw();
    }
    if (method == nullptr) {
        throw Fault::InvalidRequest::Exception(target->GetType() + " has no method " + Xml::EscapeName(name));
    }
    return {object, method, message.GetParameters(*method)};
} catch (const Tessim::InvalidArgumentException& refused) {
    throw Fault::InvalidRequest::Exception(refused.what());
}

}  // namespace

Reply HandleCall(std::string_view text, ObjectSource& source, const Soap::Limits& limits) {
    try {
        const Call call = Read(text, source, limits);
        return {Soap::EncodeResponse(*call.method, *call.object->Dispatch(*call.method, *call.request)),
                false};
    } catch (const Fault::MethodFault::Exception& fault) {
        return {Soap::EncodeFault(*fault.GetFault()), true};
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& failed) {
        const auto fault = Tessim::MakeRef<Fault::SystemError>();
        fault->SetMessage(failed.what());
        return {Soap::EncodeFault(*fault), true};
    }
}

}  // namespace Ordane
