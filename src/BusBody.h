// The bodies of calls, replies and signals, and what the bus can carry.
//
// Every body is (from, code, type, text), with the buffer as a fifth field where there is one and
// in every reply. A buffer travels as "a(y)", whose serialised form is the bytes themselves. A
// reply without a buffer carries the one byte 0 there.
#pragma once

#include <memory>
#include <string>

#include <gio/gio.h>

#include "GLibPtr.h"
#include "TCMessage.h"

namespace Velmora::Internal {

// The literal definition of the interface; "%s" is its name.
extern const char* const kInterfaceXml;

constexpr std::size_t kMaxName = 255; // D-Bus protocol, "Valid Names"

// What GDBus and the bus check by their own rules, with a critical or the loss of the connection.
bool IsInterfaceName(const std::string& name);
bool IsMemberName(const std::string& name);

class BusBody
{
public:
    enum class Use {
        Request, // also a signal: the fifth field stands only where there is a buffer
        Reply
    };

    // Its text is that of a copy of the message: the JSON, where there is one. The message must
    // outlive this object and stay as it is.
    BusBody(const std::string& from, const TCMessage& message, Use use);

    bool HasBuffer() const { return m_Size > 0; }
    const std::string& Text() const { return m_Text; }

    // Null if the bus can carry the body, else the reason why not.
    const char* WhyNotCarried() const;

    // A floating reference, which GDBus consumes.
    GVariant* Build() const;

private:
    const std::string& m_From;
    const TCMessage& m_Message;
    Use m_Use;
    std::string m_Text;
    unsigned char* m_Bytes = nullptr;
    unsigned int m_Size = 0;
};

// Throws nothing: it answers what failed for want of memory, too.
GVariant* BuildErrorReply();

// The fields of a body that has arrived; one of an unknown shape has none.
struct ReceivedBody
{
    explicit ReceivedBody(GVariant* body);

    // All but the sender's name.
    void MoveInto(TCMessage& message);

    std::unique_ptr<char[]> from; // the sender's service name
    unsigned int code = 0;
    std::unique_ptr<char[]> type;
    std::unique_ptr<char[]> text;
    std::unique_ptr<unsigned char[]> buffer;
    unsigned int size = 0;
};

// All of a body that has arrived. Returns the sender's service name.
std::unique_ptr<char[]> Unpack(GVariant* body, TCMessage& message);

} // namespace Velmora::Internal
