#include "platform/dispatch/AnswerSource.h"

namespace qx {
namespace {

struct Note {
  std::weak_ptr<AnswerSource> source;
  uint64_t ticket = 0;
};

thread_local Note tNote;

}  // namespace

void AnswerSource::note(std::weak_ptr<AnswerSource> source, uint64_t ticket) {
  tNote = {std::move(source), ticket};
}

std::pair<std::shared_ptr<AnswerSource>, uint64_t> AnswerSource::take() {
  Note taken = std::exchange(tNote, Note{});
  return {taken.source.lock(), taken.ticket};
}

}  // namespace qx
