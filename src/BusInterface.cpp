// SPDX-License-Identifier: MIT
#include "BusInterface.h"

namespace Velmora::Internal {

namespace {

// "a*" is no signature of D-Bus but GVariant's type of any array, which GDBus compares bodies with.
constexpr char kMethods[] = "       <method name='SendMessage'>"
                            "          <arg type='s' name='from' direction='in'/>"
                            "          <arg type='u' name='code' direction='in'/>"
                            "          <arg type='s' name='type' direction='in'/>"
                            "          <arg type='s' name='message' direction='in'/>"
                            "          <arg type='s' name='from' direction='out'/>"
                            "          <arg type='u' name='code' direction='out'/>"
                            "          <arg type='s' name='type' direction='out'/>"
                            "          <arg type='s' name='message' direction='out'/>"
                            "          <arg type='a*' name='buffer' direction='out'/>"
                            "       </method>"
                            "       <method name='SendMessageWithBuffer'>"
                            "          <arg type='s' name='from' direction='in'/>"
                            "          <arg type='u' name='code' direction='in'/>"
                            "          <arg type='s' name='type' direction='in'/>"
                            "          <arg type='s' name='message' direction='in'/>"
                            "          <arg type='a*' name='buffer' direction='in'/>"
                            "          <arg type='s' name='from' direction='out'/>"
                            "          <arg type='u' name='code' direction='out'/>"
                            "          <arg type='s' name='type' direction='out'/>"
                            "         <arg type='s' name='message' direction='out'/>"
                            "         <arg type='a*' name='buffer' direction='out'/>"
                            "       </method>";

} // namespace

std::string InterfaceXml(const std::string& name)
{
    return "<node>    <interface name='" + name + "'>" + kMethods + "    </interface></node>";
}

} // namespace Velmora::Internal
