// SPDX-License-Identifier: MIT
/// @file
/// The payload: a text that may be JSON, and the message built on it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <json/json.h>

#include "SennetApi.h"

namespace Velmora {

/// The text of a message in two forms: a string, and a `Json::Value`.
///
/// The two forms are not kept equal automatically:
/// - SetMessage() and the constructor from a string set the text and parse it into #m_Json.
/// - If you write to #m_Json, a text that is already there stays until Generate(). If the text is
///   empty, the getters generate it from #m_Json.
/// - A JSON that is not empty takes precedence: Generate() overwrites the text with it, and Parse()
///   does nothing.
///
/// Null, `{}` and `[]` are empty, as in `Json::Value::empty`.
///
/// A text that is not JSON is not an error: it is a plain message. A payload has no lock: use one
/// object on one thread at a time.
class SENNET_API TCData
{
public:
    TCData() = default;

    /// Stores the text and parses it.
    /// @param text any bytes; copied without a change
    explicit TCData(const std::string& text);

    /// Copies the text and the JSON, then calls Generate(): the copy of a JSON payload has the
    /// compact text. Does not copy the error text.
    TCData(const TCData& other);

    /// Copies the text and the JSON as they are. The target keeps its error text.
    TCData& operator=(const TCData& other);

    /// Moves the text and the JSON as they are. The target keeps its error text. The source may
    /// then only be assigned to or destroyed.
    TCData& operator=(TCData&& other) noexcept;

    virtual ~TCData() = default;

    /// Parses the text into #m_Json. If #m_Json is not empty, returns true and changes nothing.
    ///
    /// The reader stops after the first complete value and ignores what follows it. If the text is
    /// not JSON, #m_Json is set to null, GetError() returns the reader's report, and an info line
    /// shows the text. Text that is nested too deeply is not JSON either: the limit is 1,000
    /// levels, or one level for each 4 KiB of stack that was free when the thread first parsed.
    /// @return true if the payload is JSON
    /// @throw std::bad_alloc The payload is then unchanged.
    bool Parse();

    /// Replaces the text with #m_Json, written on one line without blanks and comments. Does
    /// nothing if #m_Json is empty.
    void Generate();

    /// Replaces the text and parses it into #m_Json, as Parse() does with an empty #m_Json.
    /// @return true if the text is JSON
    /// @throw std::bad_alloc The payload is then the old one, or the new text with a null #m_Json.
    bool SetMessage(const std::string& text);

    /// @return the text; if it is empty and #m_Json is not, generates and stores it first
    std::string GetMessage();

    /// @return the text; if it is empty and #m_Json is not, the warning
    ///         "<<WARN: JSON TYPE MESSAGE, GENERATE STRING FIRST>>"; see GetString()
    std::string GetMessage() const;

    /// @return the text; if it is empty and #m_Json is not, #m_Json as text, which is not stored
    std::string GetString() const;

    /// @return the report of the last parse that read the text, or "no error"
    std::string GetError();

protected:
    std::string m_Text; ///< the message as a text

public:
    /// The message as JSON, to read and write; null if the text is not JSON.
    Json::Value m_Json;

private:
    std::string m_Error; ///< the reader's report; empty after a successful parse
};

/// A message between services: a text or JSON, a code, a type, and an optional binary buffer.
///
/// A message owns a copy of everything that it is given; two messages never share a buffer. It has
/// no lock: use one object on one thread at a time.
class SENNET_API TCMessage : public TCData
{
public:
    TCMessage() = default;

    /// Copies everything except the error text; the text and the JSON as the copy constructor of
    /// TCData does.
    TCMessage(const TCMessage& other);

    /// Copies everything except the error text, then calls Generate(), unlike the assignment of
    /// TCData.
    TCMessage& operator=(const TCMessage& other);

    ~TCMessage() override = default;

    /// Replaces the buffer with a copy of the bytes.
    /// @param data the bytes; may point into the message's own buffer. Null with a size above 0
    ///             removes the buffer and writes a warning.
    /// @param size in bytes; 0 removes the buffer
    void SetBuffer(const unsigned char* data, unsigned int size);

    /// Copies the buffer.
    /// @param out receives a new array, which the caller frees with `delete[]`; unchanged if there
    ///            is no buffer. Null gives 0.
    /// @return the size in bytes, or 0
    unsigned int CopyBuffer(unsigned char** out) const;

    /// Returns the buffer without a copy.
    /// @param out receives the message's own pointer, or null; valid until the message is changed
    ///            or destroyed. Do not free it.
    /// @return the size in bytes, or 0
    unsigned int GetBuffer(unsigned char*& out) const;

    std::uint64_t m_Code = 0; ///< free for the application; the bus carries its low 32 bits
    std::string m_Type;       ///< free for the application

private:
    std::unique_ptr<unsigned char[]> m_Buffer; ///< null if and only if the size is 0
    unsigned int m_BufferSize = 0;
};

} // namespace Velmora
