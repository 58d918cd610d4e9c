// SOAP 1.1 messages, document/literal: one call or one reply each.
//
// A request's body holds <Method><_this type="Type">id</_this> parameters </Method>, a reply's
// <MethodResponse><returnval>…</returnval></MethodResponse> or a Fault whose detail holds one element named
// and typed after the fault. The functions may be called from any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "runtime/ordane/faults.h"
#include "runtime/ordane/objects.h"

namespace Ordane::Soap {

// Limits of a message, for the sake of the reader's memory and stack. The defaults are those of a reply that
// a client reads after its login.
struct Limits {
    // Of its text. Who receives the text rejects a longer one before it takes the memory.
    std::size_t maxBytes = 32UL * 1024 * 1024;
    // Of elements and of attributes. Counted on the text, before anything is built from it: a "<" or "="
    // within a text counts too.
    std::size_t maxElements = 1'000'000;
    // Of elements within each other, the envelope being the first.
    std::size_t maxDepth = 64;
};

// The messages of a call of `method` of the object `target`, of its response and of a fault, in UTF-8.
// `request` and `response` are the method's request and response objects. They throw std::bad_alloc rather
// than leave something out.
std::string EncodeRequest(const MoRef& target, const MethodInfo& method, const DataObject& request);
std::string EncodeResponse(const MethodInfo& method, const DataObject& response);
std::string EncodeFault(const Fault::MethodFault& fault);

// A message taken apart. Not thread-safe.
class Message {
  public:
    // Throws Tessim::InvalidArgumentException when `text` is no SOAP message with one body element, has a
    // document type declaration or goes beyond the limits; std::bad_alloc when there is no memory for it.
    Message(std::string_view text, const Limits& limits);
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    ~Message();

    // The name of the body's element without prefix.
    std::string GetName() const;
    // The object that a request calls. Throws Tessim::InvalidArgumentException when there is none.
    Tessim::Ref<MoRef> GetTarget() const;
    // A request's parameters, without its target: to be called last, and once. Throws
    // Tessim::InvalidArgumentException with what was expected.
    Tessim::Ref<DataObject> GetParameters(const MethodInfo& method) const;
    // The response object of `method`. Throws a fault as its exception, one of an unknown type as a
    // RuntimeFault with the fault's text, the message escaped (StringUtil::EscapeControls). Throws
    // Tessim::InvalidArgumentException when the content does not fit.
    Tessim::Ref<DataObject> GetResponse(const MethodInfo& method) const;
    // Whether this is a response of `method` or a fault.
    bool IsReplyTo(const MethodInfo& method) const;

  private:
    struct Document;
    std::unique_ptr<Document> document;
};

}  // namespace Ordane::Soap
