// SPDX-License-Identifier: MIT
// The bodies of calls, replies and signals: built, parsed, and checked against what the bus can
// carry.
//
// Every body is (from, code, type, text), followed by the buffer where there is one and in every
// reply. A buffer travels as "a(y)", whose serialised form is the bytes themselves. A reply without
// a buffer carries the one byte 0 there.
#pragma once

#include <string>

#include <glib.h>

#include "GLibPtr.h"
#include "TCMessage.h"

namespace Velmora::Internal {

class BusBody
{
public:
    enum class Use {
        Request, // also a signal: has a fifth field only if there is a buffer
        Reply
    };

    // The text is the one that a copy of the message has: generated from the JSON, if there is any.
    // The message must outlive this object and must not change.
    BusBody(const std::string& from, const TCMessage& message, Use use);

    bool HasBuffer() const { return m_Size > 0; }
    const std::string& Text() const { return m_Text; }

    // Returns null if the bus can carry the body, otherwise the reason.
    const char* WhyNotCarried() const;

    // Returns a floating reference, which GDBus consumes.
    GVariant* Build() const;

private:
    const std::string& m_From;
    const TCMessage& m_Message;
    Use m_Use;
    std::string m_Text;
    unsigned char* m_Bytes = nullptr;
    unsigned int m_Size = 0;
};

// Throws nothing, because it is also used when memory has run out. Returns a floating reference.
GVariant* BuildErrorReply();

// Whether a reply reports a failure. One that is not an object, or whose value is not a string,
// does not.
bool SaysFail(const TCMessage& reply);

// The error reply for a caller in this process.
void SetErrorReply(TCMessage& reply);

// The fields of a body that has arrived. The pointers are into the body, and null where it does not
// have the shape given above.
struct ParsedBody
{
    // Copies all but the sender's name. If a field is missing, the message keeps its own.
    void CopyInto(TCMessage& message) const;

    const char* from = nullptr; // the sender's service name
    unsigned int code = 0;
    const char* type = nullptr;
    const char* text = nullptr;
    const unsigned char* buffer = nullptr; // null without a buffer
    unsigned int size = 0;                 // bytes of the buffer

    VariantPtr array; // owns the bytes
};

ParsedBody ParseBody(GVariant* body);

} // namespace Velmora::Internal
