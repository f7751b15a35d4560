/// @file
/// Names of services on the bus, and what a received body holds.
#pragma once

#include <string>

#include <glib.h>

#include "TCMessage.h"

#pragma GCC visibility push(default)

namespace Velmora {

/// Operations without a state; all may run on any thread at once.
class __attribute__((visibility("default"))) TCServerHelper
{
public:
    /// Takes a received body apart. The out arguments are written only where there is something to
    /// deliver: set them to null and 0 before. A body of an unknown shape delivers nothing.
    /// @param msg stays the caller's
    /// @param from,type,message
    ///        receive new arrays, each freed by the caller with `delete[]`; null asks not to
    ///        deliver that one
    /// @param code receives the code; not null
    /// @param buffer,size
    ///        receive a new array, freed with `delete[]`, and its size in bytes, if the body has a
    ///        buffer; null is allowed where the body cannot have one
    /// @return false, with a warning, only if msg is null
    static bool AnalyseServerMsg(GVariant* msg, char** from, unsigned int* code, char** type,
                                 char** message, unsigned char** buffer, unsigned int* size);

    /// Fills a message with copies of the values. The code is always set; a null text or type and a
    /// size of 0 leave what is there. A null target gets an info line and nothing else.
    static void SetTCMessage(TCMessage* target, char* message, unsigned int code, char* type,
                             unsigned char* buffer, unsigned int size);

    /// @param name receives the file name of the running program, "nil" if it cannot be read
    static void GetProcessName(std::string& name);

    /// Replaces every byte but ASCII letters, digits, "." and "_" by "_". What else D-Bus asks of a
    /// bus name is not looked at: no element that is empty or begins with a digit, 255 bytes.
    /// @return whether any was replaced
    static bool FormatDBusName(std::string& name);

    /// @return the object path of a bus name: "/" and the name with every "." turned into "/"
    static std::string GetObjectPath(std::string name);
};

} // namespace Velmora

#pragma GCC visibility pop
