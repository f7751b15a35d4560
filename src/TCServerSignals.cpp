// SPDX-License-Identifier: MIT
// Signals: emitted on the calling thread, subscribed at GDBus, and delivered to the client.
#include <new>

#include "BusBody.h"
#include "BusHandle.h"
#include "BusNames.h"
#include "InboundCall.h"
#include "SendGate.h"
#include "ServerRegistry.h"

namespace Velmora {

using namespace Internal;

bool TCServer::SendSignal(const char* source, const char* signalName, const TCMessage* message)
{
    const ServerPin server = ServerRegistry::Require(source);
    return server && server->SendSignal(signalName, message);
}

bool TCServer::SendSignal(const char* signalName, const TCMessage* message)
{
    if (signalName == nullptr) {
        VELMORA_LOG_NULL("signalName");
        return false;
    }
    const SendGate gate(*this);
    if (!gate) {
        return false;
    }
    if (!Private::IsConnected(*this)) {
        VELMORA_LOGE("dbus connection is not open");
        return false;
    }
    const TCMessage empty;
    const BusBody body(m_ServiceName, message != nullptr ? *message : empty, BusBody::Use::Request);
    const char* const reason = body.WhyNotCarried();
    bool success = false;
    if (reason != nullptr) {
        VELMORA_LOGE("cannot send signal %s: %s", signalName, reason);
    } else if (!m_ObjectPath.empty() && IsInterfaceName(m_DBusName) && IsMemberName(signalName)) {
        GError* raw = nullptr;
        success =
            g_dbus_connection_emit_signal(m_Connection, nullptr, m_ObjectPath.c_str(),
                                          m_DBusName.c_str(), signalName, body.Build(), &raw) != 0;
        const ErrorPtr error(raw);
        if (error) {
            VELMORA_LOGE("faile to  invoking emit signal(%s %d)", error->message, error->code);
        }
    }
    VELMORA_LOGD("Send signal %s : %s.", signalName, success ? "success" : "fail");
    return success;
}

bool TCServer::SubscribeSignal(const char* source, const char* from, const char* signal,
                               TCSignalCallback callback, void* userData)
{
    if (from == nullptr) {
        VELMORA_LOG_NULL("from");
        return false;
    }
    const ServerPin server = ServerRegistry::Require(source);
    return server && server->SubscribeSignal(from, signal, callback, userData);
}

bool TCServer::SubscribeSignal(const char* from, const char* signal, TCSignalCallback callback,
                               void* userData)
{
    if (signal == nullptr) {
        VELMORA_LOG_NULL("signal");
        return false;
    }
    const OperationLock lock(*this);
    if (!lock) {
        return false;
    }
    unsigned int id = 0;
    std::string key;
    switch (m_SubscribeSignal(from, signal, TCServerSignalManager::SIGNAL_TYPE_NATIVE, id, key)) {
    case 0:
        try {
            m_SignalManager.SubscribeNativeSignal(key, signal, callback, userData, id);
        } catch (...) {
            g_dbus_connection_signal_unsubscribe(m_Connection, id);
            throw;
        }
        VELMORA_LOGI("SubscribeSignal %s success", key.c_str());
        return true;
    case 1:
        VELMORA_LOGI("already registered [%s]", key.c_str());
        return true;
    default:
        VELMORA_LOGI("fail to register [%s]", key.c_str());
        return false;
    }
}

int TCServer::m_SubscribeSignal(const char* from, const char* signal,
                                TCServerSignalManager::TCSignalType type, unsigned int& id,
                                std::string& key)
{
    if (!Private::IsConnected(*this)) {
        VELMORA_LOGE("dbus connection is not open");
        return -1;
    }
    const std::string interface = from != nullptr ? m_GetDBusName(from) : "";
    key = from != nullptr ? interface + "." + signal : signal;
    if (m_SignalManager.IfSignalSubscribed(type, key)) {
        return 1;
    }
    VELMORA_LOGI("Begin subscribe signal");
    if ((from == nullptr || IsInterfaceName(interface)) && IsMemberName(signal)) {
        auto handle = BusHandle::Make<SubscriptionHandle>(ServerLives::Of(this), interface, signal);
        id = g_dbus_connection_signal_subscribe(
            m_Connection, nullptr, from != nullptr ? interface.c_str() : nullptr, signal, nullptr,
            nullptr, G_DBUS_SIGNAL_FLAGS_NONE, &Private::Callbacks::m_DSignalHandler,
            handle.release(), &FreeHandle);
    }
    if (id == 0) {
        VELMORA_LOGE("fail to subscribe signal");
        return -1;
    }
    return 0;
}

bool TCServer::UnSubscribeSignal(const char* source, const char* from, const char* signal)
{
    if (from == nullptr) {
        VELMORA_LOG_NULL("from");
        return false;
    }
    const ServerPin server = ServerRegistry::Require(source);
    return server && server->UnSubscribeSignal(from, signal);
}

bool TCServer::UnSubscribeSignal(const char* from, const char* signal)
{
    if (signal == nullptr) {
        VELMORA_LOG_NULL("signal");
        return false;
    }
    const OperationLock lock(*this);
    return lock && m_UnSubscribeSignal(from, signal, TCServerSignalManager::SIGNAL_TYPE_NATIVE);
}

bool TCServer::m_UnSubscribeSignal(const char* from, const char* signal,
                                   TCServerSignalManager::TCSignalType type)
{
    if (!Private::IsConnected(*this) || from == nullptr) {
        VELMORA_LOGE("dbus connection is not open");
        return false;
    }
    unsigned int id = 0;
    if (m_SignalManager.UnsubscribeSignal(type, m_GetDBusName(from) + "." + signal, id)) {
        g_dbus_connection_signal_unsubscribe(m_Connection, id);
    }
    return true;
}

bool TCServer::SubscribeKeySignal(const char* /*name*/, const char* /*key*/,
                                  TCSignalCallback /*callback*/, void* /*userData*/)
{
    return false;
}

bool TCServer::SubscribeKeySignal(const char* source, const char* name, const char* key,
                                  TCSignalCallback callback, void* userData)
{
    const ServerPin server = ServerRegistry::Require(source);
    return server && server->SubscribeKeySignal(name, key, callback, userData);
}

bool TCServer::UnSubscribeKeySignal(const char* /*name*/, const char* /*key*/)
{
    return false;
}

bool TCServer::UnSubscribeKeySignal(const char* source, const char* name, const char* key)
{
    const ServerPin server = ServerRegistry::Require(source);
    return server && server->UnSubscribeKeySignal(name, key);
}

namespace {

bool IsNamed(const char* sender, const char* path, const char* interfaceName,
             const char* signalName)
{
    if (interfaceName == nullptr) {
        VELMORA_LOG_NULL("interfaceName");
        return false;
    }
    if (signalName == nullptr) {
        VELMORA_LOG_NULL("signalName");
        return false;
    }
    VELMORA_LOGI("sender(%s) object(%s) interface(%s) signal(%s)", sender, path, interfaceName,
                 signalName);
    return true;
}

} // namespace

void TCServer::m_DSignalHandler(GDBusConnection* connection, const char* sender, const char* path,
                                const char* interfaceName, const char* signalName,
                                GVariant* parameters, void* userData)
{
    if (!IsNamed(sender, path, interfaceName, signalName)) {
        return;
    }
    if (userData == nullptr) {
        VELMORA_LOG_NULL("pThis");
        return;
    }
    const InboundCall signal(connection, sender != nullptr ? sender : "", false);
    Private::Callbacks::DeliverSignal(ServerPin(static_cast<TCServer*>(userData)), interfaceName,
                                      signalName, parameters);
}

void TCServer::Private::Callbacks::m_DSignalHandler(GDBusConnection* connection, const char* sender,
                                                    const char* path, const char* interfaceName,
                                                    const char* signalName, GVariant* parameters,
                                                    void* handle)
{
    if (IsNamed(sender, path, interfaceName, signalName)) {
        const InboundCall signal(connection, sender != nullptr ? sender : "", false);
        DeliverSignal(ServerPin(BusHandle::LifeOf(handle)), interfaceName, signalName, parameters);
    }
}

void TCServer::Private::Callbacks::DeliverSignal(const ServerPin& server, const char* interfaceName,
                                                 const char* signalName, GVariant* parameters)
{
    if (!server) {
        return;
    }
    TCSignalCallback callback = nullptr;
    void* callbackData = nullptr;
    ParsedBody body;
    TCMessage message;
    try {
        const std::string key = std::string(interfaceName) + "." + signalName;
        if (!server->m_SignalManager.GetHandlerForNativeSignal(signalName, key, callback,
                                                               callbackData)) {
            VELMORA_LOGI("no register info of %s", key.c_str());
            return;
        }
        VELMORA_LOGI("begin to analyze signal of %s", key.c_str());
        body = ParseBody(parameters);
        body.CopyInto(message);
    } catch (const std::bad_alloc&) {
        VELMORA_LOGE("out of memory: a signal is dropped");
        return;
    }
    if (callback != nullptr) {
        callback(body.from, signalName, &message, callbackData);
    } else {
        TCMessage reply;
        server->IfMessageReceived(body.from, &message, &reply, signalName);
    }
}

} // namespace Velmora
