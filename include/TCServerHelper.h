// SPDX-License-Identifier: MIT
/// @file
/// Names of services on the bus, and the content of a received body.
#pragma once

#include <string>

#include <glib.h>

#include "SennetApi.h"
#include "TCMessage.h"

namespace Velmora {

/// Static functions for bus names and received bodies. All may be called on any thread.
class SENNET_API TCServerHelper
{
public:
    /// Copies the fields of a received body. Writes an out argument only if there is a value for
    /// it, so set the pointers to null and the numbers to 0 first. A body of an unknown shape has
    /// no fields.
    /// @param msg stays the caller's
    /// @param from,type,message
    ///        each receives a new array, which the caller frees with `delete[]`; pass null to skip
    ///        one
    /// @param code receives the code; must not be null
    /// @param buffer,size
    ///        receive a new array, freed with `delete[]`, and its size in bytes, if the body has a
    ///        buffer; pass null to skip it
    /// @return false, with a warning, only if msg is null
    static bool AnalyseServerMsg(GVariant* msg, char** from, unsigned int* code, char** type,
                                 char** message, unsigned char** buffer, unsigned int* size);

    /// Copies the values into a message. Always sets the code; a null text, a null type and a size
    /// of 0 leave the message's own value. With a null target it only writes an info line.
    static void SetTCMessage(TCMessage* target, char* message, unsigned int code, char* type,
                             unsigned char* buffer, unsigned int size);

    /// @param name receives the file name of the running program; "nil" if it cannot be read
    static void GetProcessName(std::string& name);

    /// Replaces every byte except ASCII letters, digits, "." and "_" by "_". Does not check the
    /// other D-Bus rules: no empty element, no leading digit in an element, at most 255 bytes.
    /// @return whether it replaced any
    static bool FormatDBusName(std::string& name);

    /// @return the object path for a bus name: "/" and the name, with every "." replaced by "/"
    static std::string GetObjectPath(std::string name);
};

} // namespace Velmora
