// Lists of threads that the components and requests of a reader share.
//
// A list from a file can have 65,535 triplets, and thousands of components and windows can refer to
// it. So lists with the same triplets are stored once, and so are the results of operations on two
// of them. Everything lives as long as the KLT_ThreadLists; a list is identified by its address.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string_view>
#include <utility>

#include "util/pal_hash.h"
#include "util/triplets/pal_triplets.h"

class KLT_ThreadList {
 public:
  KLT_ThreadList(PAL_Triplets triplets, uint32_t id) : triplets_(std::move(triplets)), id_(id) {}

  [[nodiscard]] const PAL_Triplets& triplets() const { return triplets_; }
  [[nodiscard]] bool empty() const { return triplets_.empty(); }  // which means all threads
  [[nodiscard]] uint32_t id() const { return id_; }
  // The list prepared for tests, on first use.
  [[nodiscard]] const PAL_TripletSet& set() const {
    if (!set_) set_.emplace(triplets_);
    return *set_;
  }
  [[nodiscard]] bool contains(uint32_t gtp) const {
    return set().contains(static_cast<int32_t>(gtp));
  }

 private:
  PAL_Triplets triplets_;
  mutable std::optional<PAL_TripletSet> set_;
  uint32_t id_;  // index in the KLT_ThreadLists
};

class KLT_ThreadLists {
 public:
  using List = const KLT_ThreadList*;

  KLT_ThreadLists() { (void)share({}); }
  KLT_ThreadLists(const KLT_ThreadLists&) = delete;
  KLT_ThreadLists& operator=(const KLT_ThreadLists&) = delete;
  ~KLT_ThreadLists() = default;

  // The list with these triplets.
  [[nodiscard]] List share(const PAL_Triplets& triplets);
  [[nodiscard]] List none() const { return &lists_.front(); }  // the empty list
  [[nodiscard]] List byId(uint32_t id) const { return &lists_[id]; }

  // PAL_TripletsUnite, Subtract, Equal and Subset.
  [[nodiscard]] List unite(List a, List b) { return result(0, a, b, &PAL_TripletsUnite); }
  [[nodiscard]] List subtract(List a, List b) {
    return a == b ? none() : result(1, a, b, &PAL_TripletsSubtract);
  }
  [[nodiscard]] bool areEqual(List a, List b) {
    return a == b || holds(0, a, b, &PAL_TripletsEqual);
  }
  [[nodiscard]] bool isSubset(List a, List b) {
    return a == b || holds(1, a, b, &PAL_TripletsSubset);
  }

 private:
  static uint64_t keyOf(List a, List b) { return uint64_t{a->id()} << 32 | b->id(); }
  List result(size_t operation, List a, List b,
              PAL_Triplets (*run)(PAL_TripletSpan, PAL_TripletSpan));
  bool holds(size_t relation, List a, List b, bool (*test)(PAL_TripletSpan, PAL_TripletSpan));

  std::deque<KLT_ThreadList> lists_;
  PAL_HashMap<std::string_view, List> byTriplets_;  // the bytes of the triplets
  PAL_HashMap<uint64_t, List> results_[2];          // by operands
  PAL_HashMap<uint64_t, bool> relations_[2];        // likewise
};
