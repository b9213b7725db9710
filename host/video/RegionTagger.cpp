#include "host/video/RegionTagger.hpp"

#include <algorithm>

namespace kelvaron::host {

void RegionTagger::request(const NormalizedRect& current, const NormalizedRect& rect,
                           std::uint64_t nowNs) {
  // The rectangle of frames older than any change must stay known.
  if (segments_.empty()) segments_.push_back({current, 0});
  pending_.push_back({rect, nowNs});
}

void RegionTagger::confirm(std::uint64_t nowNs) {
  if (pending_.empty()) return;
  const Pending confirmed = pending_.front();
  pending_.erase(pending_.begin());
  // The capture may have switched at any moment between request and confirmation.
  gaps_.push_back({confirmed.requestedNs, std::max(confirmed.requestedNs, nowNs)});
  segments_.push_back({confirmed.rect, nowNs});
  prune(nowNs);
}

std::optional<NormalizedRect> RegionTagger::rollback() {
  if (!pending_.empty()) pending_.pop_back();
  if (!pending_.empty()) return pending_.back().rect;
  if (!segments_.empty()) return segments_.back().rect;
  return std::nullopt;
}

std::optional<NormalizedRect> RegionTagger::attribute(std::optional<std::uint64_t> ptsNs,
                                                      const NormalizedRect& fallback) const {
  if (!ptsNs) {
    if (pending_.empty()) return fallback;
    return std::nullopt;
  }
  if (!pending_.empty() && *ptsNs >= pending_.front().requestedNs) return std::nullopt;
  if (inGap(*ptsNs)) return std::nullopt;
  for (auto segment = segments_.rbegin(); segment != segments_.rend(); ++segment) {
    if (segment->fromNs <= *ptsNs) return segment->rect;
  }
  return fallback;
}

void RegionTagger::prune(std::uint64_t nowNs) {
  const std::uint64_t cutoff = nowNs > kHistoryNs ? nowNs - kHistoryNs : 0;
  // The oldest segment goes once its successor covers every frame still worth attributing.
  while (segments_.size() >= 2 && segments_[1].fromNs <= cutoff) {
    segments_.erase(segments_.begin());
  }
  std::erase_if(gaps_, [cutoff](const Gap& gap) { return gap.toNs < cutoff; });
}

bool RegionTagger::inGap(std::uint64_t ptsNs) const {
  return std::any_of(gaps_.begin(), gaps_.end(),
                     [ptsNs](const Gap& gap) { return gap.fromNs <= ptsNs && ptsNs <= gap.toNs; });
}

}  // namespace kelvaron::host
