// SPDX-License-Identifier: MIT
#include "Json.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <locale>
#include <memory>
#include <new>
#include <ostream>
#include <streambuf>
#include <utility>

#include <glib.h>
#include <pthread.h>
#include <sys/resource.h>

#include "Check.h"
#include "TCLog.h"

namespace Velmora::Internal {

namespace {

// Lets a stream append straight to a string.
class StringSink : public std::streambuf
{
public:
    std::string* m_Target = nullptr;

protected:
    std::streamsize xsputn(const char* text, std::streamsize size) override
    {
        SENNET_CHECK(m_Target != nullptr);
        m_Target->append(text, static_cast<std::size_t>(size));
        return size;
    }
    int_type overflow(int_type character) override
    {
        m_Target->push_back(traits_type::to_char_type(character));
        return character;
    }
};

// How many bytes of the thread's stack the caller may still use. Not the size of the stack: the C
// library also keeps the thread's own variables in it.
std::size_t StackLeft()
{
    pthread_attr_t attributes;
    const int error = pthread_getattr_np(pthread_self(), &attributes);
    if (error == ENOMEM) {
        throw std::bad_alloc();
    }
    if (error != 0) { // on the main thread, without a mounted /proc
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

// The reader makes a call or two for each level, up to jsoncpp's default of 1,000 levels. With 2
// KiB for a level, which is about four times what the reader needs and ten times what a copy or a
// write needs, half of the stack is left to the callers.
std::size_t DepthLimit()
{
    return std::min<std::size_t>(StackLeft() / 2 / 2048, 1000);
}

// jsoncpp reads numbers with the global locale. To look at a locale takes a lock, except for the
// classic one.
void ReportDecimalComma()
{
    static std::atomic<bool> reported{false};
    if (reported || std::locale() == std::locale::classic()) {
        return;
    }
    const char point = std::use_facet<std::numpunct<char>>(std::locale()).decimal_point();
    if (point != '.' && !reported.exchange(true)) {
        VELMORA_LOGE("the global C++ locale has the decimal point '%c': JSON loses the fractions "
                     "of its numbers",
                     point);
    }
}

// The JSON reader and writer of a thread. To make them costs more than to use them on a short text.
class JsonTools
{
public:
    JsonTools() : m_DepthLimit(DepthLimit()), m_Stream(&m_Sink)
    {
        // What a failed append throws must pass through the stream: otherwise the text is cut.
        m_Stream.exceptions(std::ios_base::badbit);
    }

    static JsonTools& OfThread()
    {
        // GLib's thread data, not thread_local: destructors that run at the end of a thread or of
        // the process can still get a new one.
        static GPrivate tools =
            G_PRIVATE_INIT([](gpointer data) { delete static_cast<JsonTools*>(data); });
        auto* own = static_cast<JsonTools*>(g_private_get(&tools));
        if (own == nullptr) {
            own = new JsonTools; // freed at the end of the thread by the function above
            g_private_set(&tools, own);
        }
        return *own;
    }

    bool Read(const std::string& text, Json::Value& value, std::string& report)
    {
        ReportDecimalComma();
        auto reader = m_Reader ? std::move(m_Reader) : MakeReader();
        bool isJson = false;
        try {
            isJson = reader->parse(text.data(), text.data() + text.size(), &value, &report);
        } catch (const Json::Exception& tooDeep) {
            report = tooDeep.what();
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
        m_Stream.clear(); // after a write that has thrown
        writer->write(value, &m_Stream);
        if (text.size() <= kKeptFor) {
            m_Writer = std::move(writer);
        }
        return text;
    }

private:
    // Both keep the memory that a text has made them allocate, so they are freed after a larger
    // text.
    static constexpr std::size_t kKeptFor = 65536;

    std::unique_ptr<Json::CharReader> MakeReader() const
    {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false; // comments are accepted and dropped
        builder["stackLimit"] = Json::UInt64{m_DepthLimit};
        return std::unique_ptr<Json::CharReader>(builder.newCharReader());
    }

    static std::unique_ptr<Json::StreamWriter> MakeWriter()
    {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "";
        // A client's own value may have comments, and on one line a "//" would hide what follows.
        builder["commentStyle"] = "None";
        return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
    }

    const std::size_t m_DepthLimit;
    std::unique_ptr<Json::CharReader> m_Reader;   // null until the first use, and after a use
    std::unique_ptr<Json::StreamWriter> m_Writer; // that has thrown
    StringSink m_Sink;
    std::ostream m_Stream;
};

} // namespace

bool ReadJson(const std::string& text, Json::Value& value, std::string& report)
{
    return JsonTools::OfThread().Read(text, value, report);
}

std::string WriteJson(const Json::Value& value)
{
    return JsonTools::OfThread().Write(value);
}

} // namespace Velmora::Internal
