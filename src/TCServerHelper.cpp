#include "TCServerHelper.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include <unistd.h>

#include "GLibPtr.h"
#include "TCLog.h"

namespace Velmora {

using namespace Internal;

namespace {

void HandOut(const char* text, char** out)
{
    if (out == nullptr) {
        return;
    }
    const std::size_t size = std::strlen(text) + 1;
    std::unique_ptr<char[]> copy(new char[size]);
    std::memcpy(copy.get(), text, size);
    *out = copy.release(); // the caller frees it with delete[]
}

bool IsNameByte(char byte)
{
    return g_ascii_isalnum(byte) != 0 || byte == '.' || byte == '_';
}

} // namespace

bool TCServerHelper::AnalyseServerMsg(GVariant* msg, char** from, unsigned int* code, char** type,
                                      char** message, unsigned char** buffer, unsigned int* size)
{
    if (msg == nullptr) {
        VELMORA_LOG_NULL("msg");
        return false;
    }
    const char* const shape = g_variant_get_type_string(msg);
    VELMORA_LOGI("%s", shape);
    const bool plain = std::strcmp(shape, "(suss)") == 0;
    if (!plain && std::strcmp(shape, "(sussa(y))") != 0) {
        return true;
    }

    const char* ownFrom = nullptr;
    const char* ownType = nullptr;
    const char* ownMessage = nullptr;
    guint32 ownCode = 0;
    VariantPtr bytes;
    if (plain) {
        g_variant_get(msg, "(&su&s&s)", &ownFrom, &ownCode, &ownType, &ownMessage);
    } else {
        GVariant* raw = nullptr;
        g_variant_get(msg, "(&su&s&s@a*)", &ownFrom, &ownCode, &ownType, &ownMessage, &raw);
        bytes.reset(raw);
        VELMORA_LOGI("get data of %s", shape);
    }
    HandOut(ownFrom, from);
    HandOut(ownType, type);
    HandOut(ownMessage, message);
    *code = ownCode;
    if (!bytes || buffer == nullptr || size == nullptr) {
        return true;
    }

    const auto* const data = static_cast<const unsigned char*>(g_variant_get_data(bytes.get()));
    const gsize length = g_variant_get_size(bytes.get());
    if (length == 0 || (length == 1 && *data == 0)) {
        return true;
    }
    std::unique_ptr<unsigned char[]> copy(new unsigned char[length]);
    std::memcpy(copy.get(), data, length);
    *size = static_cast<unsigned int>(length);
    *buffer = copy.release(); // the caller frees it with delete[]
    return true;
}

void TCServerHelper::SetTCMessage(TCMessage* target, char* message, unsigned int code, char* type,
                                  unsigned char* buffer, unsigned int size)
{
    if (target == nullptr) {
        VELMORA_LOGI("null reply");
        return;
    }
    if (message != nullptr) {
        target->SetMessage(message);
    }
    target->m_Code = code;
    if (type != nullptr) {
        target->m_Type = type;
    }
    if (size != 0) {
        target->SetBuffer(buffer, size);
    }
}

void TCServerHelper::GetProcessName(std::string& name)
{
    char path[1024] = {};
    if (readlink("/proc/self/exe", path, sizeof path - 1) <= 0) {
        name = "nil";
        return;
    }
    name = path;
    name.erase(0, name.rfind('/') + 1); // without a "/" that is nothing
    VELMORA_LOGI("process name : %s,process path : %s", name.c_str(), path);
}

bool TCServerHelper::FormatDBusName(std::string& name)
{
    bool changed = false;
    for (char& byte : name) {
        if (!IsNameByte(byte)) {
            byte = '_';
            changed = true;
        }
    }
    return changed;
}

std::string TCServerHelper::GetObjectPath(std::string name)
{
    std::replace(name.begin(), name.end(), '.', '/');
    return "/" + name;
}

} // namespace Velmora
