#include "TCServerHelper.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include <unistd.h>

#include "GLibPtr.h"
#include "TCLog.h"

namespace Velmora {

using namespace Internal;

namespace {

template <typename T>
std::unique_ptr<T[]> Copy(const T* data, std::size_t size)
{
    std::unique_ptr<T[]> copy(new T[size]);
    std::memcpy(copy.get(), data, size * sizeof(T));
    return copy;
}

std::unique_ptr<char[]> CopyText(const char* text)
{
    return Copy(text, std::strlen(text) + 1);
}

// The caller frees it with delete[].
template <typename T>
void HandOut(std::unique_ptr<T[]> copy, T** out)
{
    if (out != nullptr) {
        *out = copy.release();
    }
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
    // All copies come before the first is handed out: whatever throws, the caller owns nothing.
    auto copyOfFrom = CopyText(ownFrom);
    auto copyOfType = CopyText(ownType);
    auto copyOfMessage = CopyText(ownMessage);
    if (bytes && buffer != nullptr && size != nullptr) {
        const auto* const data = static_cast<const unsigned char*>(g_variant_get_data(bytes.get()));
        const gsize length = g_variant_get_size(bytes.get());
        if (length > 1 || (length == 1 && *data != 0)) {
            HandOut(Copy(data, length), buffer);
            *size = static_cast<unsigned int>(length);
        }
    }
    HandOut(std::move(copyOfFrom), from);
    HandOut(std::move(copyOfType), type);
    HandOut(std::move(copyOfMessage), message);
    *code = ownCode;
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
