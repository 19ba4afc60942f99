#include "platform/walk/WalkEntry.h"

namespace qx {

std::string_view walkInfoName(WalkInfo info) {
  switch (info) {
    case WalkInfo::D:
      return "FTS_D";
    case WalkInfo::DC:
      return "FTS_DC";
    case WalkInfo::Default:
      return "FTS_DEFAULT";
    case WalkInfo::DNR:
      return "FTS_DNR";
    case WalkInfo::Dot:
      return "FTS_DOT";
    case WalkInfo::DP:
      return "FTS_DP";
    case WalkInfo::Err:
      return "FTS_ERR";
    case WalkInfo::F:
      return "FTS_F";
    case WalkInfo::Init:
      return "FTS_INIT";
    case WalkInfo::NS:
      return "FTS_NS";
    case WalkInfo::NSOK:
      return "FTS_NSOK";
    case WalkInfo::SL:
      return "FTS_SL";
    case WalkInfo::SLNONE:
      return "FTS_SLNONE";
    case WalkInfo::W:
      return "FTS_W";
  }
  return "unknown";
}

}  // namespace qx
