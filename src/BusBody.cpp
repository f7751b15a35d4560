#include "BusBody.h"

#include "JsonText.h"
#include "TCServerHelper.h"

namespace Velmora::Internal {

namespace {

constexpr std::uint64_t kMaxMessage = SENNET_MAX_MESSAGE_BYTES;
constexpr std::uint64_t kMaxArray = 64U << 20U; // D-Bus protocol, "Marshaling"

constexpr char kErrorText[] = R"({"dbus_result":"fail","errmsg":"error handling"})";

// "a*" is no signature of D-Bus but GVariant's type of any array, which GDBus compares bodies with.
constexpr char kXml[] = "<node>"
                        "    <interface name='%s'>"
                        "       <method name='SendMessage'>"
                        "          <arg type='s' name='from' direction='in'/>"
                        "          <arg type='u' name='code' direction='in'/>"
                        "          <arg type='s' name='type' direction='in'/>"
                        "          <arg type='s' name='message' direction='in'/>"
                        "          <arg type='s' name='from' direction='out'/>"
                        "          <arg type='u' name='code' direction='out'/>"
                        "          <arg type='s' name='type' direction='out'/>"
                        "          <arg type='s' name='message' direction='out'/>"
                        "          <arg type='a*' name='buffer' direction='out'/>"
                        "       </method>"
                        "       <method name='SendMessageWithBuffer'>"
                        "          <arg type='s' name='from' direction='in'/>"
                        "          <arg type='u' name='code' direction='in'/>"
                        "          <arg type='s' name='type' direction='in'/>"
                        "          <arg type='s' name='message' direction='in'/>"
                        "          <arg type='a*' name='buffer' direction='in'/>"
                        "          <arg type='s' name='from' direction='out'/>"
                        "          <arg type='u' name='code' direction='out'/>"
                        "          <arg type='s' name='type' direction='out'/>"
                        "         <arg type='s' name='message' direction='out'/>"
                        "         <arg type='a*' name='buffer' direction='out'/>"
                        "       </method>"
                        "    </interface>"
                        "</node>";
static_assert(sizeof kXml + kMaxName < 2048);

// As D-Bus marshals them: each structure of one byte starts at a multiple of eight bytes.
std::uint64_t ArraySize(std::uint64_t bytes)
{
    return bytes * 8;
}

bool IsText(const std::string& text)
{
    return g_utf8_validate_len(text.data(), text.size(), nullptr) != 0;
}

// The one copy that a buffer takes on its way out: GDBus keeps a body for a while after it was
// sent.
GVariant* CopyBytes(const void* bytes, std::size_t size)
{
    void* const copy = g_memdup2(bytes, size);
    return g_variant_new_from_data(G_VARIANT_TYPE("a(y)"), copy, size, TRUE, g_free, copy);
}

} // namespace

const char* const kInterfaceXml = kXml;

bool IsInterfaceName(const std::string& name)
{
    return g_dbus_is_interface_name(name.c_str()) != 0;
}

bool IsMemberName(const std::string& name)
{
    return name.size() <= kMaxName && g_dbus_is_member_name(name.c_str()) != 0;
}

BusBody::BusBody(const std::string& from, const TCMessage& message, Use use)
    : m_From(from), m_Message(message), m_Use(use),
      m_Text(message.m_Json.empty() ? message.GetString() : WriteJson(message.m_Json)),
      m_Size(message.GetBuffer(m_Bytes))
{}

const char* BusBody::WhyNotCarried() const
{
    if (!IsText(m_From) || !IsText(m_Message.m_Type) || !IsText(m_Text)) {
        return "a text is not valid UTF-8 or holds a NUL";
    }
    // What the header, with its names of at most 255 bytes each, and all alignment can take.
    constexpr std::uint64_t rest = 2048;
    const std::uint64_t array = ArraySize(m_Size);
    const std::uint64_t texts = m_From.size() + m_Message.m_Type.size() + m_Text.size();
    return array > kMaxArray || array + texts + rest > kMaxMessage ? "too large for the bus"
                                                                   : nullptr;
}

GVariant* BusBody::Build() const
{
    const auto code = static_cast<guint32>(m_Message.m_Code);
    const char* const type = m_Message.m_Type.c_str();
    if (m_Use == Use::Request && !HasBuffer()) {
        return g_variant_new("(suss)", m_From.c_str(), code, type, m_Text.c_str());
    }
    static constexpr unsigned char noBuffer = 0;
    GVariant* const buffer = HasBuffer() ? CopyBytes(m_Bytes, m_Size) : CopyBytes(&noBuffer, 1);
    return g_variant_new("(suss@a*)", m_From.c_str(), code, type, m_Text.c_str(), buffer);
}

GVariant* BuildErrorReply()
{
    static constexpr unsigned char noBuffer = 0;
    return g_variant_new("(suss@a*)", "", 0U, "", kErrorText, CopyBytes(&noBuffer, 1));
}

ReceivedBody::ReceivedBody(GVariant* body)
{
    char* rawFrom = nullptr;
    char* rawType = nullptr;
    char* rawText = nullptr;
    unsigned char* rawBuffer = nullptr;
    TCServerHelper::AnalyseServerMsg(body, &rawFrom, &code, &rawType, &rawText, &rawBuffer, &size);
    from.reset(rawFrom);
    type.reset(rawType);
    text.reset(rawText);
    buffer.reset(rawBuffer);
}

void ReceivedBody::MoveInto(TCMessage& message)
{
    TCServerHelper::SetTCMessage(&message, text.get(), code, type.get(), buffer.get(), size);
    text.reset();
    type.reset();
    buffer.reset();
}

std::unique_ptr<char[]> Unpack(GVariant* body, TCMessage& message)
{
    ReceivedBody received(body);
    received.MoveInto(message);
    return std::move(received.from);
}

} // namespace Velmora::Internal
