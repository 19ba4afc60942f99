#pragma once

// Shared by the end-to-end comparisons of sizes and listings: a client and the
// service's own QXFileService joined by a real connection (a Unix
// socketpair), each end with its reader and delivery threads; the service
// runs sizes on its operation queue and listings on the global queue. Also
// helpers for trees and timing.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/Foundation.h"
#include "platform/xpc/XpcConnection.h"

namespace qx::bench {

struct Reply {
  ArrayPtr result;
  ErrorPtr error;
  std::size_t reports = 0;
};

class BenchLink {
 public:
  BenchLink();
  ~BenchLink();
  BenchLink(const BenchLink&) = delete;
  BenchLink& operator=(const BenchLink&) = delete;

  // getSizesWithUrls:reply: from the client, answering YES to every report.
  Reply sizes(const std::vector<std::string>& paths);
  // getContentsOfDirectory:indexPath:reply: from the client.
  Reply listing(const std::string& path);

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

double secondsOf(const std::function<void()>& work);
double median(std::vector<double> values);
// Runs a command with its output thrown away; its wall time in seconds, or
// -1 when it fails.
double timeCommand(const std::vector<std::string>& argv);
// Peak resident memory of this process so far, in bytes.
long peakResidentBytes();
// Removes a folder and everything in it.
void removeTree(const std::string& path);
std::string makeTempFolder(const std::string& prefix);

}  // namespace qx::bench
