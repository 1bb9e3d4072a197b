// The device configuration file: JSON in the form docs/protocol.md describes
// ("Data store", configuration file), read without exceptions.
#pragma once

#include <string>

#include "device_config.h"

namespace datamgr {

// A bigger file is no device configuration; refusing it bounds what a wrong
// path (a log, a disk image) can make us read.
constexpr std::size_t kMaxConfigBytes = 1024 * 1024;
// Descriptions are for people; this keeps every record well below the frame size.
constexpr std::size_t kMaxDescription = 256;

// On failure out is unchanged and error says where and why: "line L, column
// C: reason" for text that is not JSON, "KEY/KEY/...: reason" for content
// that does not fit the form.
bool ParseDeviceConfig(std::string const& text, cDeviceConfig& out, std::string& error);
// As above, read from a file; the error starts with "PATH:" (and the line as
// "PATH:L:C:" for a syntax error).
bool LoadDeviceConfig(std::string const& path, cDeviceConfig& out, std::string& error);

// Strict "a.b.c.d"; false for anything else.
bool ParseIPv4(std::string const& text, std::uint32_t& ip);
// "a.b.c.d/len" or "a.b.c.d/m.m.m.m" (contiguous mask).
bool ParsePrefix(std::string const& text, std::uint32_t& network, std::uint32_t& netmask,
                 std::string& error);
bool IsContiguousMask(std::uint32_t mask);

}  // namespace datamgr
