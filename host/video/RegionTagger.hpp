#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "kit/wire/WireTypes.hpp"

namespace kelvaron::host {

// Knows which source rectangle was in force when a frame was captured, while the rectangle is
// being changed under a running capture. A change is requested, then confirmed once the capture
// has taken it (or rolled back if it failed); frames stamped between request and confirmation
// cannot be attributed and are dropped, so that a picture never reaches the client labelled with a
// rectangle it was not taken with. A plain value: whoever owns it serialises access to it.
//
// All times are nanoseconds on the clock of the frames' stamps.
class RegionTagger {
 public:
  struct Segment {
    NormalizedRect rect;
    std::uint64_t fromNs = 0;
    friend bool operator==(const Segment&, const Segment&) = default;
  };
  struct Pending {
    NormalizedRect rect;
    std::uint64_t requestedNs = 0;
    friend bool operator==(const Pending&, const Pending&) = default;
  };
  // A closed range of time in which a frame's rectangle cannot be known.
  struct Gap {
    std::uint64_t fromNs = 0;
    std::uint64_t toNs = 0;
    friend bool operator==(const Gap&, const Gap&) = default;
  };

  // How long a confirmed change is remembered: frames older than that are long delivered.
  static constexpr std::uint64_t kHistoryNs = 1'000'000'000;

  // A change from `current` (the rectangle in force until now) to `rect`, asked for at `nowNs`.
  // The caller's rectangle in force becomes `rect`.
  void request(const NormalizedRect& current, const NormalizedRect& rect, std::uint64_t nowNs);
  // The oldest pending change is in force since `nowNs`.
  void confirm(std::uint64_t nowNs);
  // The newest pending change failed. Yields the rectangle that applies now, if one is known.
  std::optional<NormalizedRect> rollback();
  // The rectangle a frame stamped at `ptsNs` was captured with; `fallback` (the rectangle in
  // force) where history has nothing to say. Nothing means the frame must be dropped.
  std::optional<NormalizedRect> attribute(std::optional<std::uint64_t> ptsNs,
                                          const NormalizedRect& fallback) const;

  const std::vector<Segment>& segments() const { return segments_; }
  const std::vector<Pending>& pending() const { return pending_; }
  const std::vector<Gap>& gaps() const { return gaps_; }

 private:
  void prune(std::uint64_t nowNs);
  bool inGap(std::uint64_t ptsNs) const;

  std::vector<Segment> segments_;  // oldest first
  std::vector<Pending> pending_;   // oldest first
  std::vector<Gap> gaps_;
};

}  // namespace kelvaron::host
