// SPDX-License-Identifier: MIT
#include "BusBody.h"

#include <cstring>

#include "Json.h"
#include "TCLog.h"

namespace Velmora::Internal {

namespace {

constexpr std::uint64_t kMaxMessage = SENNET_MAX_MESSAGE_BYTES;
constexpr std::uint64_t kMaxArray = 64U << 20U; // D-Bus protocol, "Marshaling"

constexpr char kErrorText[] = R"({"dbus_result":"fail","errmsg":"error handling"})";

// On the wire, where each structure of one byte starts at a multiple of eight bytes.
std::uint64_t ArraySize(std::uint64_t bytes)
{
    return bytes * 8;
}

bool IsText(const std::string& text)
{
    return g_utf8_validate_len(text.data(), text.size(), nullptr) != 0;
}

// The only copy of a buffer on its way out. It is needed: GDBus keeps a body for a while after it
// was sent.
GVariant* CopyBytes(const void* bytes, std::size_t size)
{
    void* const copy = g_memdup2(bytes, size);
    return g_variant_new_from_data(G_VARIANT_TYPE("a(y)"), copy, size, TRUE, g_free, copy);
}

} // namespace

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
    // An upper bound of the header, whose names have at most 255 bytes each, and of all padding.
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

bool SaysFail(const TCMessage& reply)
{
    if (!reply.m_Json.isObject()) {
        return false;
    }
    const Json::Value& result = reply.m_Json["dbus_result"];
    return result.isString() && result.asString() == "fail";
}

void SetErrorReply(TCMessage& reply)
{
    reply = TCMessage();
    reply.SetMessage(kErrorText);
}

ParsedBody ParseBody(GVariant* body)
{
    ParsedBody parsed;
    const char* const shape = g_variant_get_type_string(body);
    VELMORA_LOGI("%s", shape);
    guint32 code = 0;
    if (std::strcmp(shape, "(suss)") == 0) {
        g_variant_get(body, "(&su&s&s)", &parsed.from, &code, &parsed.type, &parsed.text);
    } else if (std::strcmp(shape, "(sussa(y))") == 0) {
        GVariant* array = nullptr;
        g_variant_get(body, "(&su&s&s@a*)", &parsed.from, &code, &parsed.type, &parsed.text,
                      &array);
        parsed.array.reset(array);
        VELMORA_LOGI("get data of %s", shape);
        const auto* const bytes = static_cast<const unsigned char*>(g_variant_get_data(array));
        const gsize size = g_variant_get_size(array);
        if (size > 1 || (size == 1 && *bytes != 0)) {
            parsed.buffer = bytes;
            parsed.size = static_cast<unsigned int>(size);
        }
    }
    parsed.code = code;
    return parsed;
}

void ParsedBody::CopyInto(TCMessage& message) const
{
    if (text != nullptr) {
        message.SetMessage(text);
    }
    message.m_Code = code;
    if (type != nullptr) {
        message.m_Type = type;
    }
    if (size != 0) {
        message.SetBuffer(buffer, size);
    }
}

} // namespace Velmora::Internal
