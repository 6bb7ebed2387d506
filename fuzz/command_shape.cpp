#include "fuzz/command_shape.h"

#include <string>
#include <vector>

#include "data/text.h"
#include "slicing/command_format.h"

namespace tsm::fuzz {

namespace {

class Matcher {
 public:
  Matcher(std::wstring_view format, std::wstring_view text) : text_(text) {
    format_ = std::wstring(format);
    text_internal::FormatStep step;
    for (const wchar_t* p = format_.c_str(); p != nullptr;) {
      p = text_internal::ReadStep(p, &step);
      steps_.push_back(step);
    }
    failed_.assign(steps_.size() * (text_.size() + 1), 0);
  }

  bool Match(std::size_t i, std::size_t pos) {
    char& failed = failed_[i * (text_.size() + 1) + pos];
    if (failed) return false;
    const text_internal::FormatStep& step = steps_[i];
    if (text_.substr(pos, step.literal.size()) != step.literal) return failed = 1, false;
    pos += step.literal.size();
    bool ok = false;
    switch (step.conversion) {
      case L'\0':
        ok = pos == text_.size();
        break;
      case L's': {
        // Only where the next literal begins can the text end.
        const std::wstring_view next = steps_[i + 1].literal;
        for (std::size_t end = text_.find(next, pos); end != std::wstring_view::npos && !ok;
             end = text_.find(next, end + 1)) {
          ok = Match(i + 1, end);
        }
        break;
      }
      case L'd': {
        std::size_t at = pos;
        if (at < text_.size() && text_[at] == L'-') ++at;
        for (std::size_t end = at; end < text_.size() && text_[end] >= L'0' && text_[end] <= L'9' && !ok; ++end) {
          ok = Match(i + 1, end + 1);
        }
        break;
      }
      default:
        break;
    }
    if (!ok) failed = 1;
    return ok;
  }

 private:
  std::wstring format_;  // the steps' literals point into it
  std::wstring_view text_;
  std::vector<text_internal::FormatStep> steps_;
  std::vector<char> failed_;  // (step, position) pairs already known not to match
};

}  // namespace

bool MatchesFormat(std::wstring_view format, std::wstring_view text) { return Matcher(format, text).Match(0, 0); }

bool IsNewOrderCommand(std::wstring_view text) {
  return MatchesFormat(CommandTemplateText(CommandTemplate::kA), text) ||
         MatchesFormat(CommandTemplateText(CommandTemplate::kB), text);
}

}  // namespace tsm::fuzz
