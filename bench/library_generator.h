// Deterministic generator of large, realistic libraries for benchmarks: the same arguments give
// the same document, byte for byte, on every run and machine.
#pragma once

#include <cstddef>
#include <cstdint>

#include <kestrova/models.h>

namespace kestrova::bench {

// A library of `tabs` tabs drawn from about forty themes: mixed German, English and French page
// texts of a few thousand characters with umlauts, some emoji and other scripts; titles, summaries,
// tags, some notes, reminders and project tags; windows of about a dozen tabs; one topic per theme;
// and a 256-value unit vector per tab in `embeddings` (kind "none-0+bow256").
LibraryData generateLibrary(std::size_t tabs, std::uint64_t seed = 1);

}  // namespace kestrova::bench
