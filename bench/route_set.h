// The routes every benchmark uses, made in one place so that the route
// manager and the `ip -batch` reference are given exactly the same routes.
#pragma once

#include <cstdint>
#include <string>

namespace bench {

// All on the benchmark namespace's veth interface; its address makes the
// gateway reachable, so the kernel accepts every route.
constexpr char const* kInterface = "bench0";
constexpr char const* kInterfaceAddress = "192.0.2.1/24";
constexpr char const* kGateway = "192.0.2.254";
// /28 prefixes: 10.0.0.0/8 holds a million of them, enough for any N.
constexpr char const* kCustomMask = "255.255.255.240";
constexpr int kCustomPrefixLen = 28;
// Configured routes come from a range of their own so they never meet the
// custom ones: 198.18.0.0/15 holds 8192 /28 prefixes.
constexpr std::uint32_t kConfiguredBase = (198u << 24) | (18u << 16);
constexpr std::uint32_t kMaxConfigured = 8192;
// The configured routes through the wired WAN's gateway (the setup that the
// bystander measurements switch to) have a range of their own too:
// 100.64.0.0/10 holds 262144 /28 prefixes.
constexpr std::uint32_t kWiredBase = (100u << 24) | (64u << 16);
constexpr std::uint32_t kMaxWired = 1u << 18;
// `ip -batch` marks its routes with a protocol of its own, so one flush
// removes them without touching the proxy's (200).
constexpr int kReferenceProtocol = 201;

inline std::string Dotted(std::uint32_t ip) {
  return std::to_string(ip >> 24) + "." + std::to_string((ip >> 16) & 0xff) + "." +
         std::to_string((ip >> 8) & 0xff) + "." + std::to_string(ip & 0xff);
}

// The i-th custom route's network (10.0.0.0/8 in /28 steps).
inline std::uint32_t CustomNetwork(std::uint32_t i) { return (10u << 24) | ((i & 0xfffffu) << 4); }
inline std::uint32_t ConfiguredNetwork(std::uint32_t i) {
  return kConfiguredBase | ((i % kMaxConfigured) << 4);
}

inline std::uint32_t WiredNetwork(std::uint32_t i) { return kWiredBase | ((i % kMaxWired) << 4); }

}  // namespace bench
