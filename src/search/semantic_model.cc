#include <kestrova/semantic_model.h>

namespace kestrova {

std::string_view rawValue(Semantic semantic) {
  switch (semantic) {
    case Semantic::contextual:
      return "contextual";
    case Semantic::sentence:
      return "sentence";
    case Semantic::none:
      break;
  }
  return "none";
}

std::optional<std::vector<float>> meanPool(const std::vector<std::vector<double>>& tokenVectors,
                                           std::size_t dimension) {
  std::vector<double> sum(dimension, 0.0);
  std::size_t count = 0;
  for (const std::vector<double>& token : tokenVectors) {
    if (token.size() != sum.size()) {
      continue;
    }
    for (std::size_t i = 0; i < sum.size(); ++i) {
      sum[i] += token[i];
    }
    ++count;
  }
  if (count < 1) {
    return std::nullopt;
  }
  std::vector<float> mean(dimension);
  for (std::size_t i = 0; i < dimension; ++i) {
    mean[i] = static_cast<float>(sum[i] / static_cast<double>(count));
  }
  return mean;
}

}  // namespace kestrova
