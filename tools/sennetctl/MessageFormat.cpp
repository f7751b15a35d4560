// SPDX-License-Identifier: MIT
#include "MessageFormat.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <sstream>
#include <utility>

#include <glib.h>

#include "Json.h"
#include "Printable.h"

namespace Ctl {

namespace {

// In bytes.
constexpr std::size_t kTextLimit = 65536;
constexpr unsigned int kDumpLimit = 1024;
constexpr unsigned int kDumpRow = 16;

constexpr std::size_t kIndentLimit = 32; // columns

// Lays a JSON value out with each member on a line of its own.
class JsonLayout
{
public:
    explicit JsonLayout(const Json::Value& value) { Add(value, ""); }

    const std::string& Text() const { return m_Text; } // ends early once it exceeds kTextLimit
    bool IsDeep() const { return m_Deep; }             // the deepest levels are on one line

private:
    void Add(const Json::Value& value, const std::string& indent)
    {
        const bool hasMembers = !value.empty() && (value.isObject() || value.isArray());
        if (!hasMembers || indent.size() == kIndentLimit) {
            m_Text += CompactUtf8Json(value);
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
                m_Text += CompactUtf8Json(member.name()) + ": ";
            }
            Add(*member, inner);
        }
        m_Text += "\n" + indent + (value.isObject() ? "}" : "]");
    }

    std::string m_Text;
    bool m_Deep = false;
};

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
        dump += indent + "... " + std::to_string(size - shown) + " more bytes\n";
    }
    return dump;
}

} // namespace

std::string DescribeContent(const Velmora::TCMessage& message, const std::string& indent,
                            bool withBuffer)
{
    const std::string text = message.GetString();
    std::optional<JsonLayout> layout;
    if (const std::optional<Json::Value> json = ReadJson(text)) {
        layout.emplace(*json);
    }
    const std::string& shown = layout ? layout->Text() : text;
    std::istringstream lines(TruncateUtf8(shown, kTextLimit));
    std::string content;
    for (std::string line; std::getline(lines, line);) {
        content += indent + Printable(line) + "\n";
    }
    if (layout && layout->IsDeep()) {
        content += indent + "... deeper levels are on one line\n";
    }
    if (shown.size() > kTextLimit) {
        content +=
            indent + "... cut here; the text has " + std::to_string(text.size()) + " bytes\n";
    }
    unsigned char* bytes = nullptr;
    const unsigned int size = message.GetBuffer(bytes);
    return withBuffer ? content + HexDump(bytes, size, indent) : content;
}

std::string DescribeCodeAndType(const Velmora::TCMessage& message)
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

} // namespace Ctl
