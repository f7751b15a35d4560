// SPDX-License-Identifier: MIT
// The command "send": sends a message to a service and shows the answer.
#include <cerrno>
#include <fstream>
#include <string>

#include "CommandLine.h"
#include "CommandTable.h"
#include "Failure.h"
#include "MessageArguments.h"
#include "MessageFormat.h"
#include "OutputWriter.h"
#include "ServiceNames.h"
#include "ToolServer.h"

namespace Ctl {

using Velmora::TCMessage;

namespace {

std::ofstream OpenFile(const std::string& file)
{
    std::ofstream stream(file, std::ios::binary);
    if (!stream) {
        throw Failure(kFailed, "cannot write " + file + ": " + g_strerror(errno));
    }
    return stream;
}

void WriteBuffer(const TCMessage& answer, std::ofstream& stream, const std::string& file)
{
    unsigned char* bytes = nullptr;
    const unsigned int size = answer.GetBuffer(bytes);
    stream.write(reinterpret_cast<const char*>(bytes), size);
    stream.close();
    if (!stream) {
        throw Failure(kFailed, "cannot write " + file + ": " + g_strerror(errno));
    }
}

int SendAndForget(const std::string& service, const TCMessage& message)
{
    ToolServer server(kToolName, ToolServer::SERVER_TYPE_PROXY);
    server.Post(service, message);
    return kDone;
}

int ShowAnswer(const TCMessage& answer, long long elapsed, bool json, bool withBuffer)
{
    OutputWriter output(json);
    if (json) {
        Json::Value record;
        AddContent(record, answer);
        record["elapsed_us"] = Json::Int64{elapsed};
        output.WriteRecord(record);
        return output.Finish();
    }
    if (const std::string set = DescribeCodeAndType(answer); !set.empty()) {
        output.WriteText(output.Paint(OutputWriter::Colour::Green, set.substr(1)) + "\n");
    }
    output.WriteText(DescribeContent(answer, "", withBuffer));
    return output.Finish();
}

} // namespace

int RunSend(CommandLine& line)
{
    MessageArguments arguments(line);
    gboolean async = FALSE;
    const TimeoutOption timeoutOption(line, "Time limit for the answer (default: 25000)");
    StringOption bufferFile;
    line.Add({
        {"async", 'a', 0, G_OPTION_ARG_NONE, &async, "Do not wait for an answer", nullptr},
        {"reply-buffer", 'r', 0, G_OPTION_ARG_FILENAME, bufferFile.Target(),
         "Write the buffer of the answer to this file", "FILE"},
    });
    line.Parse();
    const std::string& service = line.Arguments()[0];
    RequireBusName(service);
    const int timeout = timeoutOption.Value(kAnswerTimeout);
    if (async != FALSE && (timeoutOption.IsGiven() || bufferFile.IsGiven())) {
        throw Failure(kUsage, "--async does not wait for an answer; it cannot be used with "
                              "--timeout or --reply-buffer");
    }
    const TCMessage message = arguments.Build(line);
    if (async != FALSE) {
        return SendAndForget(service, message);
    }

    std::ofstream bufferStream;
    if (bufferFile.IsGiven()) { // before sending, so that a wrong file name sends nothing
        bufferStream = OpenFile(bufferFile.Value());
    }
    ToolServer server(kToolName, ToolServer::SERVER_TYPE_PROXY);
    const gint64 start = g_get_monotonic_time();
    const TCMessage answer = server.Call(service, message, timeout);
    const gint64 elapsed = g_get_monotonic_time() - start;
    if (bufferFile.IsGiven()) {
        WriteBuffer(answer, bufferStream, bufferFile.Value());
    }
    return ShowAnswer(answer, elapsed, line.WantsJson(), !bufferFile.IsGiven());
}

} // namespace Ctl
