#include "Text.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <sstream>
#include <utility>

#include <glib.h>

#include "GLibPtr.h"

namespace Ctl {

using namespace Velmora::Internal;

namespace {

// In bytes; enough for people.
constexpr std::size_t kNameLimit = 1024;
constexpr std::size_t kTextLimit = 65536;
constexpr unsigned int kDumpLimit = 1024;
constexpr unsigned int kDumpRow = 16;

constexpr std::size_t kIndentLimit = 32; // columns

std::string WriteJson(const Json::Value& value, bool asUtf8)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = asUtf8;
    return Json::writeString(builder, value);
}

// A value with each member on a line of its own, and brackets where people look for them.
class Layout
{
public:
    explicit Layout(const Json::Value& value) { Add(value, ""); }

    const std::string& Text() const { return m_Text; } // ends early if it is longer than is shown
    bool IsDeep() const { return m_Deep; }

private:
    void Add(const Json::Value& value, const std::string& indent)
    {
        const bool hasMembers = !value.empty() && (value.isObject() || value.isArray());
        if (!hasMembers || indent.size() == kIndentLimit) {
            m_Text += WriteJson(value, true);
            m_Deep = m_Deep || hasMembers;
            return;
        }
        const std::string inner = indent + "  ";
        m_Text += value.isObject() ? "{" : "[";
        for (auto member = value.begin(); member != value.end() && m_Text.size() <= kTextLimit;
             ++member) {
            m_Text += member == value.begin() ? "\n" : ",\n";
            m_Text += inner;
            if (value.isObject()) {
                m_Text += WriteJson(member.name(), true) + ": ";
            }
            Add(*member, inner);
        }
        m_Text += "\n" + indent + (value.isObject() ? "}" : "]");
    }

    std::string m_Text;
    bool m_Deep = false;
};

// What is shown of a text with that limit, in whole characters.
std::string Beginning(const std::string& text, std::size_t limit)
{
    std::size_t size = std::min(text.size(), limit);
    while (size < text.size() && size > 0 && (static_cast<unsigned char>(text[size]) >> 6U) == 2) {
        --size;
    }
    return text.substr(0, size);
}

std::string Hex(const unsigned char* bytes, unsigned int size)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(std::size_t{2} * size);
    for (unsigned int i = 0; i < size; ++i) {
        text += digits[bytes[i] >> 4U];
        text += digits[bytes[i] & 0xFU];
    }
    return text;
}

std::string DumpRow(const unsigned char* bytes, unsigned int offset, unsigned int size)
{
    char cell[16];
    std::snprintf(cell, sizeof cell, "%08x ", offset);
    std::string row = cell;
    std::string letters;
    for (unsigned int i = 0; i < kDumpRow; ++i) {
        if (i % 8 == 0) {
            row += ' ';
        }
        if (offset + i >= size) {
            row += "   ";
            continue;
        }
        const unsigned char byte = bytes[offset + i];
        row += Hex(&byte, 1) + " ";
        letters += g_ascii_isprint(static_cast<char>(byte)) != 0 ? static_cast<char>(byte) : '.';
    }
    return row + " |" + letters + "|";
}

std::string HexDump(const unsigned char* bytes, unsigned int size, const std::string& indent)
{
    std::string dump;
    const unsigned int shown = std::min(size, kDumpLimit);
    for (unsigned int offset = 0; offset < shown; offset += kDumpRow) {
        dump += indent + DumpRow(bytes, offset, shown) + "\n";
    }
    if (shown < size) {
        dump += indent + "... " + std::to_string(size - shown) + " bytes more\n";
    }
    return dump;
}

} // namespace

std::string Printable(const std::string& text)
{
    const std::unique_ptr<char, Releaser<g_free>> valid(
        g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
    std::string line;
    const char* next = nullptr;
    for (const char* at = valid.get(); *at != '\0'; at = next) {
        next = g_utf8_next_char(at);
        const gunichar character = g_utf8_get_char(at);
        if (g_unichar_iscntrl(character) != FALSE && character != '\t') {
            char escape[16];
            std::snprintf(escape, sizeof escape, "\\x%02x", character);
            line += escape;
        } else {
            line.append(at, next);
        }
    }
    return line;
}

std::string PrintableName(const std::string& text)
{
    const std::string shown = Beginning(text, kNameLimit);
    return Printable(shown) +
           (shown.size() < text.size()
                ? "... " + std::to_string(text.size() - shown.size()) + " bytes more"
                : "");
}

std::optional<Json::Value> ReadJson(const std::string& text)
{
    if (!Velmora::TCData(text).Parse()) {
        return std::nullopt;
    }
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) {
        return std::nullopt;
    }
    return value;
}

std::string CompactJson(const Json::Value& value)
{
    return WriteJson(value, false);
}

std::string DescribeContent(const Velmora::TCMessage& message, const std::string& indent,
                            bool withBuffer)
{
    const std::string text = message.GetString();
    std::optional<Layout> layout;
    if (const std::optional<Json::Value> json = ReadJson(text)) {
        layout.emplace(*json);
    }
    const std::string& shown = layout ? layout->Text() : text;
    std::istringstream lines(Beginning(shown, kTextLimit));
    std::string content;
    for (std::string line; std::getline(lines, line);) {
        content += indent + Printable(line) + "\n";
    }
    if (layout && layout->IsDeep()) {
        content += indent + "... deeper levels on one line\n";
    }
    if (shown.size() > kTextLimit) {
        content +=
            indent + "... cut here, the text has " + std::to_string(text.size()) + " bytes\n";
    }
    unsigned char* bytes = nullptr;
    const unsigned int size = message.GetBuffer(bytes);
    return withBuffer ? content + HexDump(bytes, size, indent) : content;
}

void AddContent(Json::Value& record, const Velmora::TCMessage& message)
{
    const std::string text = message.GetString();
    record["code"] = Json::UInt64{message.m_Code};
    record["type"] = message.m_Type;
    record["text"] = text;
    if (std::optional<Json::Value> json = ReadJson(text)) {
        record["json"] = std::move(*json);
    }
    unsigned char* bytes = nullptr;
    if (const unsigned int size = message.GetBuffer(bytes); size > 0) {
        record["buffer"] = Hex(bytes, size);
    }
}

std::string DescribeKind(const Velmora::TCMessage& message)
{
    std::string kind;
    if (message.m_Code != 0) {
        kind += " code " + std::to_string(message.m_Code);
    }
    if (!message.m_Type.empty()) {
        kind += " type " + PrintableName(message.m_Type);
    }
    return kind;
}

std::string Milliseconds(long long microseconds)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f ms", static_cast<double>(microseconds) / 1000);
    return text;
}

} // namespace Ctl
