// sennetctl send
#include <cerrno>
#include <fstream>

#include "CommandLine.h"
#include "Endpoint.h"
#include "Failure.h"
#include "Log.h"
#include "MessageOptions.h"
#include "Output.h"
#include "Text.h"

namespace Ctl {

using Velmora::TCMessage;
using Velmora::TCServer;

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
    Endpoint endpoint(kToolName, TCServer::SERVER_TYPE_PROXY);
    if (!endpoint.SendMessage(service.c_str(), &message, false, nullptr)) {
        throw Failure(kFailed, service + ": " + LastError());
    }
    return kDone;
}

int ShowAnswer(const TCMessage& answer, long long elapsed, bool json, bool withBuffer)
{
    Output output(json);
    if (json) {
        Json::Value record;
        AddContent(record, answer);
        record["elapsed_us"] = Json::Int64{elapsed};
        output.WriteRecord(record);
        return output.Finish();
    }
    if (const std::string kind = DescribeKind(answer); !kind.empty()) {
        output.WriteText(output.Paint(Output::Colour::Green, kind.substr(1)) + "\n");
    }
    output.WriteText(DescribeContent(answer, "", withBuffer));
    return output.Finish();
}

} // namespace

int RunSend(CommandLine& line)
{
    MessageOptions options(line);
    gboolean async = FALSE;
    const TimeoutOption timeout(line, "Wait that long for the answer (default: 25000)");
    OptionText bufferFile;
    line.Add({
        {"async", 'a', 0, G_OPTION_ARG_NONE, &async, "Do not wait for an answer", nullptr},
        {"reply-buffer", 'r', 0, G_OPTION_ARG_FILENAME, bufferFile.Target(),
         "Write the buffer of the answer to a file", "FILE"},
    });
    line.Parse();
    const std::string& service = line.Words()[0];
    RequireBusName(service);
    const int limit = timeout.Value(kDefaultTimeout);
    if (async != FALSE && (timeout.IsGiven() || bufferFile.IsGiven())) {
        throw Failure(kUsage, "--async does not wait for the answer that --timeout and "
                              "--reply-buffer are about");
    }
    const TCMessage message = options.Build(line);
    if (async != FALSE) {
        return SendAndForget(service, message);
    }

    std::ofstream bufferStream;
    if (bufferFile.IsGiven()) { // before anything is sent
        bufferStream = OpenFile(bufferFile.Value());
    }
    Endpoint endpoint(kToolName, TCServer::SERVER_TYPE_PROXY);
    const gint64 start = g_get_monotonic_time();
    TCMessage answer;
    endpoint.Ask(service, message, limit, answer);
    const gint64 elapsed = g_get_monotonic_time() - start;
    if (bufferFile.IsGiven()) {
        WriteBuffer(answer, bufferStream, bufferFile.Value());
    }
    return ShowAnswer(answer, elapsed, line.WantsJson(), !bufferFile.IsGiven());
}

} // namespace Ctl
