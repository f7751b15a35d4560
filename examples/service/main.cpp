// SPDX-License-Identifier: MIT
// A service that the bus starts for the first message. It counts what is in stock, and broadcasts
// each change. The reply to {"item": "bolt", "add": 5} is {"count": 5}.
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <glib-unix.h>
#include <sennet.h>

using namespace Velmora;

namespace {

class Stock : public TCServer, public TCTask
{
public:
    Stock() : TCServer("example.stock", SERVER_TYPE_SERVICE), TCTask("stock") {}

protected:
    // The bus thread moves every message to the task.
    bool IfTransferMessage(const char* /*from*/, const TCMessage* /*message*/,
                           TCEventIO*& target) override
    {
        target = this;
        return true;
    }

    // Runs on the task's thread, and also on the bus thread while the task's queue is full.
    bool IfMessageReceived(const char* /*from*/, const TCMessage* message, TCMessage* reply,
                           const char* /*signalName*/) override
    {
        const Json::Value& json = message->m_Json;
        if (!json.isObject() || !json["item"].isString() || !json["add"].isInt()) {
            reply->m_Json["error"] = "an item and a number to add are missing";
            return true;
        }
        const std::lock_guard<std::mutex> lock(m_Mutex);
        Json::Int64& count = m_Counts[json["item"].asString()];
        count += json["add"].asInt();
        reply->m_Json["count"] = count;
        SendSignal("changed", message);
        return true;
    }

private:
    std::mutex m_Mutex;
    std::map<std::string, Json::Int64> m_Counts; // guarded by m_Mutex
};

gboolean Quit(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

} // namespace

int main()
{
    SetAppName("stock");
    const std::unique_ptr<GMainLoop, decltype(&g_main_loop_unref)> loop(
        g_main_loop_new(nullptr, FALSE), &g_main_loop_unref);
    g_unix_signal_add(SIGTERM, &Quit, loop.get());
    const TCScope<Stock> stock; // creates task and server, and closes them in the right order
    if (!stock) {
        return 1;
    }
    g_main_loop_run(loop.get());
    return 0;
}
