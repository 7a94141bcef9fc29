#ifndef BENCH_SUPPORT_NULLLUMO_H
#define BENCH_SUPPORT_NULLLUMO_H

#include <cstdint>

// A device service that does nothing: lists and properties that the plug-in makes are one object
// each, and a notification is thrown away. A program that links it can send requests of the cloud.
namespace NullLumo {

// Calls the service's set or get handler with one property, on the calling thread.
void Set(const char* name, const char* text);
void Get(const char* name);

// How many requests have been answered. Any thread.
std::uint64_t Answers();

}  // namespace NullLumo

#endif  // BENCH_SUPPORT_NULLLUMO_H
