// The rate loop's promise, which the bit reservoir and the largest packet size rest on: the
// access unit it plans is never larger than the budget, and, unless the budget is so small that
// one step of the global gain spans most of it, not much smaller when the sound could use more.

#include "host/audio/ELDRateControl.hpp"

#include <gtest/gtest.h>

#include <random>

#include "host/audio/ELDFilterbank.hpp"

namespace kelvaron::host::eld {
namespace {

TEST(RateLoop, WhatItPlansFitsTheBudgetAndFillsMostOfIt) {
  std::mt19937 random(11);
  std::uniform_real_distribution<float> noise(-1, 1);
  std::array<ELDAnalysis, kChannels> analysis;
  std::array<std::array<float, kFrameLength>, kChannels> blocks;
  RateLoop loop;
  // Budgets in bits, and the least share of each that full-scale noise must use, in percent.
  const std::pair<int, int> cases[] = {{256, 0}, {1360, 75}, {kLargestFrameBits / 8 * 8, 75}};
  for (const auto& [budget, leastShare] : cases) {
    SCOPED_TRACE(std::to_string(budget) + " bits");
    for (int frame = 0; frame < 8; ++frame) {
      for (auto& block : blocks)
        for (float& sample : block) sample = noise(random);
      const std::array<Spectrum, kChannels> spectra{analysis[0].analyse(blocks[0]),
                                                    analysis[1].analyse(blocks[1])};
      const CodedFrame& coded = loop.code(spectra, budget);
      const auto bits = int(writeAccessUnit(coded.channels, coded.bandCount).size() * 8);
      EXPECT_LE(bits, budget);
      EXPECT_GE(bits, budget * leastShare / 100);
    }
  }
}

}  // namespace
}  // namespace kelvaron::host::eld
