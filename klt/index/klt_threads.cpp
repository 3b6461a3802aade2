// Stores shared lists of threads. See klt_threads.h.
#include "klt/index/klt_threads.h"

namespace {

std::string_view bytesOf(const PAL_Triplets& triplets) {
  return {reinterpret_cast<const char*>(triplets.data()), triplets.size() * sizeof(PAL_Triplet)};
}

}  // namespace

KLT_ThreadLists::List KLT_ThreadLists::share(const PAL_Triplets& triplets) {
  if (const auto known = byTriplets_.find(bytesOf(triplets)); known != byTriplets_.end()) {
    return known->second;
  }
  lists_.emplace_back(triplets, static_cast<uint32_t>(lists_.size()));
  byTriplets_.emplace(bytesOf(lists_.back().triplets()), &lists_.back());
  return &lists_.back();
}

KLT_ThreadLists::List KLT_ThreadLists::result(size_t operation, List a, List b,
                                              PAL_Triplets (*run)(PAL_TripletSpan,
                                                                  PAL_TripletSpan)) {
  List& result = results_[operation][keyOf(a, b)];
  if (result == nullptr) result = share(run(a->triplets(), b->triplets()));
  return result;
}

bool KLT_ThreadLists::holds(size_t relation, List a, List b,
                            bool (*test)(PAL_TripletSpan, PAL_TripletSpan)) {
  const auto [known, isNew] = relations_[relation].try_emplace(keyOf(a, b));
  if (isNew) known->second = test(a->triplets(), b->triplets());
  return known->second;
}
