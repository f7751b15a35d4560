// SPDX-License-Identifier: MIT
#include "MessageArguments.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>

#include "Failure.h"
#include "GLibPtr.h"
#include "Json.h"

namespace Ctl {

using namespace Velmora::Internal;

namespace {

// Leaves out the newline at the end, which comes from the terminal or from echo.
std::string ReadInput()
{
    std::string text;
    char block[65536];
    while (const std::size_t size = std::fread(block, 1, sizeof block, stdin)) {
        text.append(block, size);
    }
    if (std::ferror(stdin) != 0) {
        throw Failure(kFailed, std::string("cannot read standard input: ") + g_strerror(errno));
    }
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

void RequireUtf8(const char* what, const std::string& text)
{
    if (g_utf8_validate_len(text.data(), text.size(), nullptr) == FALSE) {
        throw Failure(kFailed, std::string(what) + " is not valid UTF-8");
    }
}

void ReadBuffer(const std::string& file, Velmora::TCMessage& message)
{
    char* bytes = nullptr;
    gsize size = 0;
    GError* raw = nullptr;
    const bool read = g_file_get_contents(file.c_str(), &bytes, &size, &raw) != FALSE;
    const std::unique_ptr<char, Releaser<g_free>> ownBytes(bytes);
    const ErrorPtr error(raw);
    if (!read) {
        throw Failure(kFailed, error->message);
    }
    if (size > std::numeric_limits<unsigned int>::max()) {
        throw Failure(kFailed, file + " is too large for a message");
    }
    message.SetBuffer(reinterpret_cast<const unsigned char*>(bytes),
                      static_cast<unsigned int>(size));
}

} // namespace

MessageArguments::MessageArguments(CommandLine& line)
{
    line.Add({
        {"code", 'c', 0, G_OPTION_ARG_INT64, &m_Code, "Code of the message (default: 0)", "NUMBER"},
        {"type", 't', 0, G_OPTION_ARG_FILENAME, m_Type.Target(), "Type of the message", "TYPE"},
        {"buffer", 'b', 0, G_OPTION_ARG_FILENAME, m_BufferFile.Target(),
         "Send the content of this file as the buffer", "FILE"},
    });
}

Velmora::TCMessage MessageArguments::Build(const CommandLine& line) const
{
    if (m_Code < 0 || m_Code > std::numeric_limits<std::uint32_t>::max()) {
        throw Failure(kUsage, "--code must be from 0 to 4294967295");
    }
    Velmora::TCMessage message;
    message.m_Code = static_cast<std::uint64_t>(m_Code);
    message.m_Type = m_Type.Value();
    RequireUtf8("the type", message.m_Type);
    if (line.Arguments().size() > 1) {
        const std::string& argument = line.Arguments()[1];
        const std::string text = argument == "-" ? ReadInput() : argument;
        RequireUtf8("the text", text);
        message.SetMessage(text);
        // The library would send only the JSON value at the beginning of such a text; it takes a
        // lone sign for a number, too.
        if (!message.m_Json.empty() && !ReadJson(text)) {
            throw Failure(kFailed, "the text would arrive as the JSON value " +
                                       CompactJson(message.m_Json) +
                                       "; to send it as text, quote it as a JSON string");
        }
    }
    if (m_BufferFile.IsGiven()) {
        ReadBuffer(m_BufferFile.Value(), message);
    }
    return message;
}

} // namespace Ctl
