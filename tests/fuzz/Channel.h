#ifndef TESTS_FUZZ_CHANNEL_H
#define TESTS_FUZZ_CHANNEL_H

#include <functional>
#include <map>
#include <string>

#include "ChannelModel.h"

namespace fuzz {

// The plug-in's one core as fuzz targets see it: what no interface shows, and how to wait for its
// worker without the second that a job may be late when its wake-up is lost.
namespace Channel {

// What the control knows of applications.
std::map<std::string, ChannelModel::App> Apps();

// Stores an application's data, of any bytes: the bus carries texts only.
int Send(const std::string& app, const std::string& data);

// Unregisters every application, and forgets the thing's own properties, which outlive a stop.
void ForgetEverything();

// Returns when the worker has done all that was queued before. The channel must be created, and
// nobody about to destroy it.
void WaitForWorker();

// The same after a stop: returns when the stopped worker has ended.
void WaitForWorkerToEnd();

}  // namespace Channel
}  // namespace fuzz

#endif  // TESTS_FUZZ_CHANNEL_H
