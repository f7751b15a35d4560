// SPDX-License-Identifier: MIT
#include "TCServerHelper.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include <unistd.h>

#include "BusBody.h"
#include "BusNames.h"
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

} // namespace

bool TCServerHelper::AnalyseServerMsg(GVariant* msg, char** from, unsigned int* code, char** type,
                                      char** message, unsigned char** buffer, unsigned int* size)
{
    if (msg == nullptr) {
        VELMORA_LOG_NULL("msg");
        return false;
    }
    const ParsedBody body = ParseBody(msg);
    if (body.from == nullptr) {
        return true;
    }
    // All copies come before the first is handed out: whatever throws, the caller owns nothing.
    auto copyOfFrom = CopyText(body.from);
    auto copyOfType = CopyText(body.type);
    auto copyOfMessage = CopyText(body.text);
    if (body.buffer != nullptr && buffer != nullptr && size != nullptr) {
        HandOut(Copy(body.buffer, body.size), buffer);
        *size = body.size;
    }
    HandOut(std::move(copyOfFrom), from);
    HandOut(std::move(copyOfType), type);
    HandOut(std::move(copyOfMessage), message);
    *code = body.code;
    return true;
}

void TCServerHelper::SetTCMessage(TCMessage* target, char* message, unsigned int code, char* type,
                                  unsigned char* buffer, unsigned int size)
{
    if (target == nullptr) {
        VELMORA_LOGI("null reply");
        return;
    }
    ParsedBody fields;
    fields.code = code;
    fields.type = type;
    fields.text = message;
    fields.buffer = buffer;
    fields.size = size;
    fields.CopyInto(*target);
}

void TCServerHelper::GetProcessName(std::string& name)
{
    char path[1024] = {};
    if (readlink("/proc/self/exe", path, sizeof path - 1) <= 0) {
        name = "nil";
        return;
    }
    name = path;
    name.erase(0, name.rfind('/') + 1); // nothing, if there is no "/"
    VELMORA_LOGI("process name : %s,process path : %s", name.c_str(), path);
}

bool TCServerHelper::FormatDBusName(std::string& name)
{
    return MakeLegal(name);
}

std::string TCServerHelper::GetObjectPath(std::string name)
{
    std::replace(name.begin(), name.end(), '.', '/');
    return "/" + name;
}

} // namespace Velmora
