// SPDX-License-Identifier: MIT
// A bus that is killed and started again, time after time.
#include <csignal>
#include <fstream>

#include <unistd.h>

#include "BusHarness.h"
#include "sennet-extra.h"

using namespace Velmora;

namespace {

// A bus daemon that starts again at the same address.
class OwnBus
{
public:
    OwnBus()
    {
        gchar* const made = g_dir_make_tmp("sennet-XXXXXX", nullptr);
        m_Folder = made;
        g_free(made);
        m_Address = "unix:path=" + m_Folder + "/bus";
        std::ifstream general(BUS_CONFIG);
        std::string config((std::istreambuf_iterator<char>(general)), {});
        const std::string listen = "unix:tmpdir=/tmp";
        config.replace(config.find(listen), listen.size(), m_Address);
        std::ofstream(m_Folder + "/conf") << config;
        m_Config = "--config-file=" + m_Folder + "/conf";
        g_setenv("DBUS_SYSTEM_BUS_ADDRESS", m_Address.c_str(), TRUE);
        Start();
    }
    ~OwnBus()
    {
        Kill();
        unlink((m_Folder + "/bus").c_str());
        unlink((m_Folder + "/conf").c_str());
        rmdir(m_Folder.c_str());
    }
    OwnBus(const OwnBus&) = delete;
    OwnBus& operator=(const OwnBus&) = delete;

    void Start()
    {
        unlink((m_Folder + "/bus").c_str());
        m_Daemon = std::make_unique<Support::ChildProcess>(
            std::vector<const char*>{"dbus-daemon", "--nofork", "--nopidfile", m_Config.c_str()});
        Await([this] { // until the daemon takes connections
            const Internal::ConnectionPtr connection(g_dbus_connection_new_for_address_sync(
                m_Address.c_str(), G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr, nullptr,
                nullptr));
            return connection != nullptr;
        });
    }
    void Kill() { m_Daemon.reset(); }

private:
    std::string m_Folder, m_Address, m_Config;
    std::unique_ptr<Support::ChildProcess> m_Daemon;
};

class ReconnectTest : public testing::Test
{
protected:
    // The guard is used on the dispatch thread.
    void OnDispatcher(const std::function<void()>& function) { dispatcher.Run(function); }
    void Open(const std::vector<Noted<>*>& servers)
    {
        OnDispatcher([&] {
            guard = std::make_unique<TCReconnect>();
            guard->SetCallbacks([&] { ++lost; }, [&] { ++back; });
            for (Noted<>* const server : servers) {
                EXPECT_FALSE(guard->Add(*server)); // not open
                EXPECT_TRUE(server->CreateDBusServer());
                EXPECT_TRUE(guard->Add(*server));
                EXPECT_FALSE(guard->Add(*server));
            }
        });
    }
    void TearDown() override
    {
        OnDispatcher([&] { guard.reset(); });
    }

    OwnBus bus;
    Velmora::Testing::LoopThread dispatcher;
    Server app{"app"}, page{"page", TCServer::SERVER_TYPE_ACTIVITY},
        proxy{"proxy", TCServer::SERVER_TYPE_PROXY};
    std::unique_ptr<TCReconnect> guard;
    std::atomic<int> lost{0}, back{0};
    const TCMessage message = Message("x");
};

} // namespace

TEST_F(ReconnectTest, TwentyTimesUnderLoadBesideOtherHolders)
{
    Open({&app, &page, &proxy});
    OnDispatcher([&] {
        EXPECT_TRUE(guard->Subscribe(page, "app", "news", nullptr, nullptr));
        EXPECT_FALSE(guard->Subscribe(page, "app", "n-ews", nullptr, nullptr));
    });
    std::atomic<bool> over{false};
    std::atomic<int> ended{0}, started{0};
    std::thread load([&] {
        TCMessage reply;
        while (!over) {
            proxy.SendMessage("app.page", &message, true, &reply, 1000);
            page.SendSignal("noise", &message);
        }
    });
    std::vector<Internal::ConnectionPtr> holders; // of the dead connections
    for (int round = 1; round <= 20; ++round) {
        holders.emplace_back(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
        TCCall call;
        ++started;
        call.Start(proxy, "app.page", message, [&](const TCCallResult&) { ++ended; });
        bus.Kill();
        Await([&] { return lost == round; });
        bus.Start();
        Await([&] { return back == round; });
        Await([&] { return ended == started; });
        Await([&] {
            return proxy.IsServiceAvailable("app") && proxy.IsServiceAvailable("app.page");
        });
        const auto before = page.CountSeen();
        Await([&] {
            app.SendSignal("news", &message);
            return page.Seen().find("news app:x") != std::string::npos && page.CountSeen() > before;
        });
        const TCCallResult result = TCCall().Start(proxy, "app", message, 20000).get();
        EXPECT_TRUE(result) << result.text;
    }
    over = true;
    load.join();
}

TEST_F(ReconnectTest, GuardMayEndInItsCallbacksAndWhileItWaits)
{
    Open({&app, &proxy});
    OnDispatcher([&] {
        guard->SetCallbacks(
            [&] {
                guard.reset();
                ++lost;
            },
            [&] { ++back; });
    });
    bus.Kill();
    Await([&] { return lost == 1; });
    bus.Start();

    Open({&app, &proxy});
    OnDispatcher([&] {
        guard->Remove(app);
        guard->SetCallbacks([&] { ++lost; },
                            [&] {
                                guard.reset();
                                ++back;
                            });
    });
    bus.Kill();
    Await([&] { return lost == 2; });
    bus.Start();
    Await([&] { return back == 1; });
    EXPECT_TRUE(TCCall().Start(proxy, "app", message).get().kind ==
                TCCallResult::Kind::NoService); // removed, so it was not opened again
    proxy.CloseDBusServer();
    app.CloseDBusServer();

    Open({&proxy});
    bus.Kill();
    Await([&] { return lost == 3; });
    OnDispatcher([&] { guard.reset(); }); // while it waits for the next attempt
    bus.Start();
    OnDispatcher([] {});
    EXPECT_EQ(back, 1);
}
