/// @file
/// The payloads: a text that is also JSON, and the message built on it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <json/json.h>

#pragma GCC visibility push(default)

namespace Velmora {

/// The text of a message in two forms: a string, and the `Json::Value` parsed from it or written
/// into it.
///
/// The two sides are not kept in step by themselves:
/// - After SetMessage() or the constructor from a string the text leads; #m_Json is what could be
///   parsed from it.
/// - After keys were written into #m_Json the JSON leads. With an empty text the getters produce
///   the text from it; a text that is there already stays until Generate().
/// - Generate() and Parse() both let a JSON win that is not empty: Generate() overwrites the text,
///   Parse() does nothing.
///
/// "Empty" is what `Json::Value::empty` says: null, `{}` and `[]`.
///
/// A payload has no lock: one object belongs to one thread at a time. Text that is not JSON is no
/// fault; it is how a plain message is recognised.
class __attribute__((visibility("default"))) TCData
{
public:
    TCData() = default;

    /// Stores the text and parses it.
    /// @param text copied as it stands; any bytes
    explicit TCData(const std::string& text);

    /// Copies text and JSON, then runs Generate(), so that the copy of a JSON payload has its
    /// compact text. The error text is not copied.
    TCData(const TCData& other);

    /// Copies text and JSON as they are. The target keeps its error text.
    TCData& operator=(const TCData& other);

    /// Takes text and JSON over as they are. The target keeps its error text; the source may only
    /// be assigned to or destroyed afterwards.
    TCData& operator=(TCData&& other) noexcept;

    virtual ~TCData() = default;

    /// Parses the text into #m_Json, unless that is not empty: then it returns true and changes
    /// nothing. The reader stops after the first complete value and ignores what follows it. If the
    /// text is not JSON, #m_Json is null, GetError() has the reader's report, and one info line
    /// tells the text. A value that is nested more deeply than 1,000 levels, or than one level for
    /// each 4 KiB of the thread's stack, counts as no JSON. If memory runs out, std::bad_alloc
    /// passes through and the payload stays as it was.
    /// @return true if the payload is JSON
    bool Parse();

    /// Replaces the text by #m_Json written on one line without blanks and comments. Does nothing
    /// if #m_Json is empty.
    void Generate();

    /// Replaces the text, empties #m_Json and parses the text. If memory runs out, std::bad_alloc
    /// passes through; the payload is the old one then, or the new text without a JSON.
    /// @return what Parse() says
    bool SetMessage(const std::string& text);

    /// @return the text, generated and stored first if it is empty and #m_Json is not
    std::string GetMessage();

    /// @return the text; for a JSON without a text the warning
    ///         "<<WARN: JSON TYPE MESSAGE, GENERATE STRING FIRST>>", see GetString()
    std::string GetMessage() const;

    /// @return the text; for a JSON without a text that JSON written out, without storing it
    std::string GetString() const;

    /// @return the report of the last parse that really ran, or "no error"
    std::string GetError();

protected:
    std::string m_Text; ///< the message as text

public:
    /// The message as JSON, for clients to read and write; null when the text is not JSON.
    Json::Value m_Json;

private:
    std::string m_Error; ///< the reader's report; empty after a successful parse
};

/// What services send each other: a text or JSON, a code, a type, and an optional binary buffer.
///
/// A message copies what it is given and owns its bytes; no two messages share a buffer. It has no
/// lock: one object belongs to one thread at a time.
class __attribute__((visibility("default"))) TCMessage : public TCData
{
public:
    TCMessage() = default;

    /// Copies everything but the error text; the text as TCData's copy constructor does.
    TCMessage(const TCMessage& other);

    /// Copies everything but the error text, then runs Generate(), unlike TCData's assignment.
    TCMessage& operator=(const TCMessage& other);

    ~TCMessage() override = default;

    /// Replaces the buffer by a copy.
    /// @param data the bytes; may lie inside the message's own buffer. Null with a size above 0 is
    ///             refused with a warning and leaves no buffer.
    /// @param size in bytes; 0 removes the buffer
    void SetBuffer(const unsigned char* data, unsigned int size);

    /// Hands out a copy of the buffer.
    /// @param out receives a new array, which the caller frees with `delete[]`; left as it is when
    ///            there is no buffer. Null is refused with the result 0.
    /// @return the size in bytes, or 0
    unsigned int CopyBuffer(unsigned char** out) const;

    /// Shows the buffer without a copy.
    /// @param out receives the message's own pointer, or null; valid until the message is changed
    ///            or destroyed, not to be freed
    /// @return the size in bytes, or 0
    unsigned int GetBuffer(unsigned char*& out) const;

    std::uint64_t m_Code = 0; ///< free for the application; its low 32 bits cross the bus
    std::string m_Type;       ///< free for the application

private:
    std::unique_ptr<unsigned char[]> m_Buffer; ///< null exactly when the size is 0
    unsigned int m_BufferSize = 0;
};

} // namespace Velmora

#pragma GCC visibility pop
