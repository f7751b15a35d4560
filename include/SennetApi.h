// SPDX-License-Identifier: MIT
/// @file
/// The macro that marks what the library exports.
#pragma once

/// Marks a class or a function that the library exports. The library is built with hidden
/// visibility, and a client may be, too. Without this mark, the library and the client would each
/// have their own class of the same name, and casts and exceptions between them would fail.
#define SENNET_API __attribute__((visibility("default")))
