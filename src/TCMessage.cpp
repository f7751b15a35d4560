// SPDX-License-Identifier: MIT
#include "TCMessage.h"

#include <cstring>
#include <utility>

#include "Check.h"
#include "Json.h"
#include "TCLog.h"

namespace Velmora {

using namespace Internal;

namespace {

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
    std::string report;
    Json::Value json; // not m_Json, which must not change if memory runs out
    const bool isJson = ReadJson(m_Text, json, report);
    if (!isJson) {
        json = Json::Value();
        VELMORA_LOGI("NOT JSON TYPE MESSAGE![%s]", m_Text.c_str());
    }
    m_Error = report.substr(0, report.find('\0')); // may throw, then nothing has changed
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
    m_Text = text; // may throw, then nothing has changed
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
    m_Buffer = CopyBytes(data, size); // copied before the old one is freed: the data may be in it
    m_BufferSize = size;
}

unsigned int TCMessage::CopyBuffer(unsigned char** out) const
{
    SENNET_CHECK((m_Buffer == nullptr) == (m_BufferSize == 0));
    if (out == nullptr || m_Buffer == nullptr) {
        return 0;
    }
    *out = CopyBytes(m_Buffer.get(), m_BufferSize).release(); // the caller's from now on
    return m_BufferSize;
}

unsigned int TCMessage::GetBuffer(unsigned char*& out) const
{
    SENNET_CHECK((m_Buffer == nullptr) == (m_BufferSize == 0));
    out = m_Buffer.get();
    return m_BufferSize;
}

} // namespace Velmora
