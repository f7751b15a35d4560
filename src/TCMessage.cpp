#include "TCMessage.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <locale>
#include <new>
#include <ostream>
#include <streambuf>
#include <utility>

#include <glib.h>
#include <pthread.h>
#include <sys/resource.h>

#include "JsonText.h"
#include "TCLog.h"

namespace Velmora {

using namespace Internal;

namespace {

// Appends what is written to the stream straight to a string.
class StringSink : public std::streambuf
{
public:
    std::string* m_Target = nullptr;

protected:
    std::streamsize xsputn(const char* text, std::streamsize size) override
    {
        m_Target->append(text, static_cast<std::size_t>(size));
        return size;
    }
    int_type overflow(int_type character) override
    {
        m_Target->push_back(traits_type::to_char_type(character));
        return character;
    }
};

// How many bytes of the thread's stack are left to the caller. Not its size: the C library keeps
// the thread's own variables in it as well.
std::size_t StackLeft()
{
    pthread_attr_t attributes;
    const int error = pthread_getattr_np(pthread_self(), &attributes);
    if (error == ENOMEM) {
        throw std::bad_alloc();
    }
    if (error != 0) { // on the main thread, without a /proc to look into
        rlimit limit = {};
        getrlimit(RLIMIT_STACK, &limit);
        return static_cast<std::size_t>(limit.rlim_cur);
    }
    void* end = nullptr;
    std::size_t size = 0;
    pthread_attr_getstack(&attributes, &end, &size);
    pthread_attr_destroy(&attributes);
    return static_cast<std::size_t>(static_cast<char*>(__builtin_frame_address(0)) -
                                    static_cast<char*>(end));
}

// The reader goes down a call or two a level, by jsoncpp's default 1,000 levels. With 2 KiB for
// each, some four times what it takes and ten times what a copy or a write does, half of the stack
// is left to those who call.
std::size_t DepthLimit()
{
    return std::min<std::size_t>(StackLeft() / 2 / 2048, 1000);
}

// jsoncpp reads numbers by the global locale. A look at a locale that is not the usual one takes a
// lock, at the usual one nothing.
void TellOfDecimalComma()
{
    static std::atomic<bool> told{false};
    if (told || std::locale() == std::locale::classic()) {
        return;
    }
    const char point = std::use_facet<std::numpunct<char>>(std::locale()).decimal_point();
    if (point != '.' && !told.exchange(true)) {
        VELMORA_LOGE("the global C++ locale has the decimal point '%c': JSON loses the fractions "
                     "of its numbers",
                     point);
    }
}

// A thread's JSON reader and writer. Making them costs more than using them on a short text.
class JsonTools
{
public:
    JsonTools() : m_DepthLimit(DepthLimit()), m_Stream(&m_Sink)
    {
        // A failed append throws on through the stream instead of cutting the text.
        m_Stream.exceptions(std::ios_base::badbit);
    }

    static JsonTools& OfThread()
    {
        // GLib's thread data and not thread_local: it can be had again in the destructors that run
        // at the end of a thread or of the process.
        static GPrivate tools =
            G_PRIVATE_INIT([](gpointer data) { delete static_cast<JsonTools*>(data); });
        auto* own = static_cast<JsonTools*>(g_private_get(&tools));
        if (own == nullptr) {
            own = new JsonTools; // freed at the end of the thread by the function above
            g_private_set(&tools, own);
        }
        return *own;
    }

    bool Read(const std::string& text, Json::Value& value, std::string& errors)
    {
        TellOfDecimalComma();
        auto reader = m_Reader ? std::move(m_Reader) : MakeReader();
        bool isJson = false;
        try {
            isJson = reader->parse(text.data(), text.data() + text.size(), &value, &errors);
        } catch (const Json::Exception& tooDeep) {
            errors = tooDeep.what();
        }
        if (text.size() <= kKeptFor) {
            m_Reader = std::move(reader);
        }
        return isJson;
    }

    std::string Write(const Json::Value& value)
    {
        auto writer = m_Writer ? std::move(m_Writer) : MakeWriter();
        std::string text;
        m_Sink.m_Target = &text;
        m_Stream.clear(); // of a write that threw
        writer->write(value, &m_Stream);
        if (text.size() <= kKeptFor) {
            m_Writer = std::move(writer);
        }
        return text;
    }

private:
    // Both keep the memory that a text has made them take, so that they go with a larger one.
    static constexpr std::size_t kKeptFor = 65536;

    std::unique_ptr<Json::CharReader> MakeReader() const
    {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false; // allowed all the same
        builder["stackLimit"] = Json::UInt64{m_DepthLimit};
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }

    static std::unique_ptr<Json::StreamWriter> MakeWriter()
    {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        // A client's own value may have comments, and on one line a "//" would swallow what
        // follows.
        builder["commentStyle"] = "None";
        return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
    }

    const std::size_t m_DepthLimit;
    std::unique_ptr<Json::CharReader> m_Reader;   // null until there is use for it,
    std::unique_ptr<Json::StreamWriter> m_Writer; // as after a use that threw
    StringSink m_Sink;
    std::ostream m_Stream;
};

std::unique_ptr<unsigned char[]> CopyBytes(const unsigned char* data, unsigned int size)
{
    if (size == 0) {
        return nullptr;
    }
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size]);
    std::memcpy(copy.get(), data, size);
    return copy;
}

} // namespace

std::string Internal::WriteJson(const Json::Value& value)
{
    return JsonTools::OfThread().Write(value);
}

TCData::TCData(const std::string& text) : m_Text(text)
{
    Parse();
}

TCData::TCData(const TCData& other) : m_Text(other.m_Text), m_Json(other.m_Json)
{
    Generate();
}

TCData& TCData::operator=(const TCData& other)
{
    if (this != &other) {
        m_Text = other.m_Text;
        m_Json = other.m_Json;
    }
    return *this;
}

TCData& TCData::operator=(TCData&& other) noexcept
{
    if (this != &other) {
        m_Text = std::move(other.m_Text);
        m_Json = std::move(other.m_Json);
    }
    return *this;
}

bool TCData::Parse()
{
    if (!m_Json.empty()) {
        return true;
    }
    std::string errors;
    Json::Value json; // not into m_Json, where a reader that runs out of memory would leave half
    const bool isJson = JsonTools::OfThread().Read(m_Text, json, errors);
    if (!isJson) {
        json = Json::Value();
        VELMORA_LOGI("NOT JSON TYPE MESSAGE![%s]", m_Text.c_str());
    }
    m_Error = errors.c_str(); // up to the first NUL; may throw, and then nothing has changed
    m_Json = std::move(json);
    return isJson;
}

void TCData::Generate()
{
    if (!m_Json.empty()) {
        m_Text = WriteJson(m_Json);
    }
}

bool TCData::SetMessage(const std::string& text)
{
    m_Text = text; // may throw, and then nothing has changed
    m_Json = Json::Value();
    return Parse();
}

std::string TCData::GetMessage()
{
    if (m_Text.empty()) {
        Generate();
    }
    return m_Text;
}

std::string TCData::GetMessage() const
{
    if (m_Text.empty() && !m_Json.empty()) {
        return "<<WARN: JSON TYPE MESSAGE, GENERATE STRING FIRST>>";
    }
    return m_Text;
}

std::string TCData::GetString() const
{
    if (m_Text.empty() && !m_Json.empty()) {
        return WriteJson(m_Json);
    }
    return m_Text;
}

std::string TCData::GetError()
{
    return m_Error.empty() ? "no error" : m_Error;
}

TCMessage::TCMessage(const TCMessage& other)
    : TCData(other), m_Code(other.m_Code), m_Type(other.m_Type),
      m_Buffer(CopyBytes(other.m_Buffer.get(), other.m_BufferSize)),
      m_BufferSize(other.m_BufferSize)
{}

TCMessage& TCMessage::operator=(const TCMessage& other)
{
    if (this == &other) {
        return *this;
    }
    m_Code = other.m_Code;
    m_Type = other.m_Type;
    TCData::operator=(other);
    Generate();
    m_Buffer = CopyBytes(other.m_Buffer.get(), other.m_BufferSize);
    m_BufferSize = other.m_BufferSize;
    return *this;
}

void TCMessage::SetBuffer(const unsigned char* data, unsigned int size)
{
    if (data == nullptr && size > 0) {
        VELMORA_LOG_NULL("data");
        size = 0;
    }
    m_Buffer = CopyBytes(data, size); // before the old one goes: the data may lie in it
    m_BufferSize = size;
}

unsigned int TCMessage::CopyBuffer(unsigned char** out) const
{
    if (out == nullptr || m_Buffer == nullptr) {
        return 0;
    }
    *out = CopyBytes(m_Buffer.get(), m_BufferSize).release(); // the caller's from here on
    return m_BufferSize;
}

unsigned int TCMessage::GetBuffer(unsigned char*& out) const
{
    out = m_Buffer.get();
    return m_BufferSize;
}

} // namespace Velmora
