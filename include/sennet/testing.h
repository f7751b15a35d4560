// SPDX-License-Identifier: MIT
/// @file
/// Help for tests of services: a private bus, a loop thread, stub services. Everything is in this
/// header; where GoogleTest is installed, it has a fixture as well.
#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/prctl.h>
#include <unistd.h>

#include <gio/gio.h>

#include "TCServer.h"
#include "TCServerHelper.h"

#if __has_include(<gtest/gtest.h>)
#include <gtest/gtest.h>
#endif

namespace Velmora::Testing {

/// A thread that runs a GLib main loop.
class LoopThread
{
public:
    /// Returns when the loop runs.
    /// @param context null for the global default one; a reference is taken
    explicit LoopThread(GMainContext* context = nullptr)
        : m_Loop(g_main_loop_new(context, FALSE)), m_Thread([this] { g_main_loop_run(m_Loop); })
    {
        Run([] {}); // a quit before the loop runs would be lost
    }
    /// Dispatches first what is queued.
    ~LoopThread()
    {
        Run([this] { g_main_loop_quit(m_Loop); });
        m_Thread.join();
        g_main_loop_unref(m_Loop);
    }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    /// Runs the function on the thread, after what is queued there, and waits for its end. Call
    /// this on another thread.
    void Run(std::function<void()> function) const
    {
        auto* const call = new Call{std::packaged_task<void()>(std::move(function))};
        const std::future<void> done = call->task.get_future();
        GSource* const source = g_idle_source_new(); // owns the call
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, &Call::Run, call, &Call::Free);
        call->ready = true;
        g_source_attach(source, g_main_loop_get_context(m_Loop));
        g_source_unref(source);
        done.wait();
    }

private:
    struct Call
    {
        std::packaged_task<void()> task;
        std::atomic<bool> ready{false}; // shows ThreadSanitizer the order that GLib keeps inside

        static gboolean Run(gpointer data)
        {
            auto* const call = static_cast<Call*>(data);
            if (call->ready) {
                call->task();
            }
            return G_SOURCE_REMOVE;
        }
        static void Free(gpointer data) { delete static_cast<Call*>(data); }
    };

    GMainLoop* const m_Loop; // one reference
    std::thread m_Thread;
};

/// A bus of its own for this process: a dbus-daemon that lets everybody do everything, and that is
/// the system bus for this process and its children. Make it before the first connection to the
/// bus, and only once in a process, since GDBus keeps its connection. Ends the process with a
/// message if the daemon cannot be started.
class PrivateBus
{
public:
    PrivateBus()
    {
        const std::string config = WriteConfig();
        const char* const command[] = {"dbus-daemon",     "--nofork",     "--nopidfile",
                                       "--print-address", config.c_str(), nullptr};
        GSubprocessLauncher* const launcher =
            g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE);
        g_subprocess_launcher_set_child_setup(
            launcher, [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGTERM); }, nullptr, nullptr);
        GError* error = nullptr;
        m_Daemon = g_subprocess_launcher_spawnv(launcher, command, &error);
        g_object_unref(launcher);
        if (m_Daemon == nullptr) {
            Fail(error->message);
        }
        m_Address = ReadAddress();
        unlink(config.substr(config.find('/')).c_str());
        g_setenv("DBUS_SYSTEM_BUS_ADDRESS", m_Address.c_str(), TRUE);
    }
    ~PrivateBus()
    {
        g_subprocess_send_signal(m_Daemon, SIGTERM);
        g_subprocess_wait(m_Daemon, nullptr, nullptr);
        g_object_unref(m_Daemon);
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /// @return the D-Bus address of the bus
    const std::string& Address() const { return m_Address; }

private:
    [[noreturn]] static void Fail(const char* reason)
    {
        g_error("cannot start a private bus (package dbus-daemon): %s", reason);
    }
    // Returns the option that names the file.
    static std::string WriteConfig()
    {
        constexpr char config[] =
            "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
            "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">"
            "<busconfig><listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>"
            "<policy context=\"default\"><allow send_destination=\"*\"/><allow "
            "receive_sender=\"*\"/>"
            "<allow own=\"*\"/><allow user=\"*\"/></policy></busconfig>";
        gchar* name = nullptr;
        GError* error = nullptr;
        const int file = g_file_open_tmp("sennet-bus-XXXXXX", &name, &error);
        if (file < 0) {
            Fail(error->message);
        }
        close(file);
        if (g_file_set_contents(name, config, -1, &error) == 0) {
            Fail(error->message);
        }
        std::string option = std::string("--config-file=") + name;
        g_free(name);
        return option;
    }
    std::string ReadAddress() const
    {
        std::string address;
        char next = 0;
        while (g_input_stream_read(g_subprocess_get_stdout_pipe(m_Daemon), &next, 1, nullptr,
                                   nullptr) == 1 &&
               next != '\n') {
            address += next;
        }
        if (address.empty()) {
            Fail("the daemon tells no address");
        }
        return address;
    }

    GSubprocess* m_Daemon = nullptr; // one reference
    std::string m_Address;
};

/// A service that the tested one calls. It stands on a connection and a thread of its own, as if it
/// were another process, so it may be called synchronously from any thread of the test.
///
/// ~~~{.cpp}
/// StubService weather("weather");
/// weather.On("temperature?", "21.5");
/// TestedFunction();
/// EXPECT_EQ(weather.Requests().size(), 1U);
/// ~~~
class StubService
{
public:
    /// Fills in the reply to a request; runs on the stub's thread.
    using Handler = std::function<void(const TCMessage& request, TCMessage& reply)>;

    /// Returns when the bus has granted the name, or ends the process with a message.
    /// @param name the service name
    explicit StubService(const std::string& name)
        : m_Name(name), m_BusName(TCServer::m_GetDBusName(name)), m_Context(g_main_context_new()),
          m_Thread(m_Context)
    {
        GError* error = nullptr;
        constexpr auto flags =
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        m_Connection = g_dbus_connection_new_for_address_sync(g_getenv("DBUS_SYSTEM_BUS_ADDRESS"),
                                                              flags, nullptr, nullptr, &error);
        Require(m_Connection != nullptr, error);
        m_Thread.Run([this] { Export(); });
        GVariant* const granted = g_dbus_connection_call_sync(
            m_Connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new("(su)", m_BusName.c_str(), 4U), G_VARIANT_TYPE("(u)"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
        Require(granted != nullptr, error);
        g_variant_unref(granted);
    }
    ~StubService()
    {
        m_Thread.Run([this] { g_dbus_connection_unregister_object(m_Connection, m_Object); });
        g_dbus_connection_close_sync(m_Connection, nullptr, nullptr);
        g_object_unref(m_Connection);
        g_main_context_unref(m_Context);
    }
    StubService(const StubService&) = delete;
    StubService& operator=(const StubService&) = delete;

    /// Sets the text of the reply to requests with exactly this text.
    void On(const std::string& request, const std::string& reply)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_Replies[request] = reply;
    }
    /// Sets what answers all other requests; without it, the reply is empty.
    void OnAny(Handler handler)
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        m_Handler = std::move(handler);
    }
    /// @return the requests so far, in their order
    std::vector<TCMessage> Requests() const
    {
        const std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Requests;
    }
    /// Broadcasts a signal, and returns when it has left.
    void Emit(const std::string& signal, const std::string& text)
    {
        g_dbus_connection_emit_signal(
            m_Connection, nullptr, TCServerHelper::GetObjectPath(m_BusName).c_str(),
            m_BusName.c_str(), signal.c_str(),
            g_variant_new("(suss)", m_Name.c_str(), 0U, "", text.c_str()), nullptr);
        g_dbus_connection_flush_sync(m_Connection, nullptr, nullptr);
    }

private:
    static void Require(bool done, const GError* error)
    {
        if (!done) {
            g_error("cannot make a stub service: %s", error->message);
        }
    }

    void Export()
    {
        const std::string body = "<arg type='s'/><arg type='u'/><arg type='s'/><arg type='s'/>";
        const std::string reply = "<arg type='s' direction='out'/><arg type='u' direction='out'/>"
                                  "<arg type='s' direction='out'/><arg type='s' direction='out'/>"
                                  "<arg type='a(y)' direction='out'/></method>";
        const std::string xml = "<node><interface name='" + m_BusName +
                                "'><method name='SendMessage'>" + body + reply +
                                "<method name='SendMessageWithBuffer'>" + body +
                                "<arg type='a(y)'/>" + reply + "</interface></node>";
        GDBusNodeInfo* const info = g_dbus_node_info_new_for_xml(xml.c_str(), nullptr);
        static const GDBusInterfaceVTable table = {&OnCall, nullptr, nullptr, {}};
        g_main_context_push_thread_default(m_Context);
        m_Object = g_dbus_connection_register_object(
            m_Connection, TCServerHelper::GetObjectPath(m_BusName).c_str(), info->interfaces[0],
            &table, this, nullptr, nullptr);
        g_main_context_pop_thread_default(m_Context);
        g_dbus_node_info_unref(info);
    }

    static void OnCall(GDBusConnection* /*connection*/, const char* /*sender*/,
                       const char* /*path*/, const char* /*interfaceName*/, const char* /*method*/,
                       GVariant* parameters, GDBusMethodInvocation* invocation, void* self)
    {
        const char *type = nullptr, *text = nullptr;
        guint32 code = 0;
        g_variant_get_child(parameters, 1, "u", &code);
        g_variant_get_child(parameters, 2, "&s", &type);
        g_variant_get_child(parameters, 3, "&s", &text);
        TCMessage request;
        request.m_Code = code;
        request.m_Type = type;
        request.SetMessage(text);
        if (g_variant_n_children(parameters) == 5) {
            GVariant* const buffer = g_variant_get_child_value(parameters, 4);
            const auto* const bytes = static_cast<const unsigned char*>(g_variant_get_data(buffer));
            const auto size = static_cast<unsigned int>(g_variant_get_size(buffer));
            if (size > 1 || (size == 1 && *bytes != 0)) { // one zero byte means no buffer
                request.SetBuffer(bytes, size);
            }
            g_variant_unref(buffer);
        }
        TCMessage reply;
        auto* const stub = static_cast<StubService*>(self);
        stub->Answer(request, reply);
        g_dbus_method_invocation_return_value(invocation, stub->Body(reply));
    }

    void Answer(const TCMessage& request, TCMessage& reply)
    {
        Handler handler;
        {
            const std::lock_guard<std::mutex> lock(m_Mutex);
            m_Requests.push_back(request);
            const auto found = m_Replies.find(request.GetString());
            if (found != m_Replies.end()) {
                reply.SetMessage(found->second);
                return;
            }
            handler = m_Handler;
        }
        if (handler) {
            handler(request, reply);
        }
    }

    GVariant* Body(const TCMessage& reply) const
    {
        static constexpr unsigned char none = 0;
        unsigned char* bytes = nullptr;
        const unsigned int size = reply.GetBuffer(bytes);
        GVariantBuilder buffer;
        g_variant_builder_init(&buffer, G_VARIANT_TYPE("a(y)"));
        for (unsigned int i = 0; i < (size > 0 ? size : 1U); ++i) {
            g_variant_builder_add(&buffer, "(y)", size > 0 ? bytes[i] : none);
        }
        return g_variant_new("(sussa(y))", m_Name.c_str(), static_cast<guint32>(reply.m_Code),
                             reply.m_Type.c_str(), reply.GetString().c_str(), &buffer);
    }

    const std::string m_Name, m_BusName;
    GMainContext* const m_Context;           // one reference
    GDBusConnection* m_Connection = nullptr; // one reference
    unsigned int m_Object = 0;
    mutable std::mutex m_Mutex;
    std::map<std::string, std::string> m_Replies; // guarded by m_Mutex
    Handler m_Handler;                            // guarded by m_Mutex
    std::vector<TCMessage> m_Requests;            // guarded by m_Mutex
    LoopThread m_Thread;
};

#if __has_include(<gtest/gtest.h>)
/// A fixture whose tests have a private bus, and a thread that dispatches the hooks of the servers
/// that a test creates. All tests of a program share the bus.
class BusTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { static const PrivateBus bus; }

    LoopThread dispatcher; ///< runs the loop of the global default context
};
#endif

} // namespace Velmora::Testing
