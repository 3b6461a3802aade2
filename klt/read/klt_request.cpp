// Creates, copies and normalises requests.
//
// Where requests overlap in time, their categories are united and their threads are united. The
// order of the unions doesn't matter, so the list is made by one sweep over the instants at which a
// window starts or ends: between two neighbouring instants the selection is the union of all
// windows that are open there. Adjoining requests with the same selection become one.
#include "klt/read/klt_request.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <utility>

namespace {

constexpr uint32_t kAllCategories = 1;

struct ListOrder {
  bool operator()(const PAL_Triplets& a, const PAL_Triplets& b) const {
    return std::lexicographical_compare(
        a.begin(), a.end(), b.begin(), b.end(), [](const PAL_Triplet& x, const PAL_Triplet& y) {
          return std::tie(x.first, x.last, x.stride) < std::tie(y.first, y.last, y.stride);
        });
  }
};

// Assigns a number to each set of threads. Lists with the same threads get the same number.
class ThreadSets {
 public:
  static constexpr int kAll = 0;

  ThreadSets() { intern({}); }

  int idOf(const PAL_Triplets& list) {
    if (list.empty()) return kAll;
    // A list that contains no thread must not become the empty list, which means all threads.
    const PAL_Triplets canonical = PAL_TripletsUnite(list, {});
    return intern(canonical.empty() ? list : canonical);
  }

  // The union of several sets, whose ids are sorted.
  int unite(const std::vector<int>& ids) {
    if (ids.size() == 1 || ids.front() == kAll) return ids.front();
    const auto [known, isNew] = unions_.try_emplace(ids, kAll);
    if (isNew) known->second = idOf(concatenate(ids));
    return known->second;
  }

  const PAL_Triplets& list(int id) const { return *lists_[static_cast<size_t>(id)]; }

 private:
  // All entries of the lists. Entries that contain no thread are left out unless there are no
  // others.
  PAL_Triplets concatenate(const std::vector<int>& ids) const {
    PAL_Triplets all;
    for (const int id : ids) all.insert(all.end(), list(id).begin(), list(id).end());
    PAL_Triplets nonEmpty;
    std::copy_if(all.begin(), all.end(), std::back_inserter(nonEmpty), [](const PAL_Triplet& t) {
      return t.stride > 0 ? t.first <= t.last : t.stride < 0 && t.first >= t.last;
    });
    return nonEmpty.empty() ? all : nonEmpty;
  }

  int intern(PAL_Triplets list) {
    const auto [entry, isNew] = ids_.try_emplace(std::move(list), static_cast<int>(lists_.size()));
    if (isNew) lists_.push_back(&entry->first);
    return entry->second;
  }

  std::map<PAL_Triplets, int, ListOrder> ids_;
  std::vector<const PAL_Triplets*> lists_;
  std::map<std::vector<int>, int> unions_;
};

// A request with the number of its set of threads.
struct Window {
  KLT_Request request;
  int threads;
};

bool sameCategories(uint32_t a, uint32_t b) { return a == b || (a & b & kAllCategories) != 0; }

bool sameSelection(const Window& a, const Window& b) {
  return a.threads == b.threads && sameCategories(a.request.categories, b.request.categories);
}

bool coversCategories(const Window& outer, const Window& inner) {
  const uint32_t categories = outer.request.categories;
  return (categories & kAllCategories) != 0 || (inner.request.categories & ~categories) == 0;
}

bool coversThreads(const Window& outer, const Window& inner) {
  if (outer.threads == inner.threads || outer.threads == ThreadSets::kAll) return true;
  return inner.threads != ThreadSets::kAll &&
         PAL_TripletsSubset(outer.request.threads, inner.request.threads);
}

// Whether `inner` has the same threads as `outer` and no other categories, or the same categories
// and no other threads. A window with both fewer categories and fewer threads is kept as a
// selection of its own.
bool covers(const Window& outer, const Window& inner) {
  if (outer.threads == inner.threads) return coversCategories(outer, inner);
  return sameCategories(outer.request.categories, inner.request.categories) &&
         coversThreads(outer, inner);
}

class Normaliser {
 public:
  explicit Normaliser(std::span<const KLT_Request* const> requests) {
    for (const KLT_Request* request : requests) {
      Window window{*request, threadSets_.idOf(request->threads)};
      if (window.request.end < window.request.start) window.request.end = ~uint64_t{0};
      const bool isEmpty = window.request.start == window.request.end;
      (isEmpty ? empty_ : open_).push_back(std::move(window));
    }
    const auto byTime = [](const Window& a, const Window& b) {
      return std::tie(a.request.start, a.request.end) < std::tie(b.request.start, b.request.end);
    };
    std::stable_sort(open_.begin(), open_.end(), byTime);
    std::stable_sort(empty_.begin(), empty_.end(), byTime);
    for (const Window& window : open_) ends_.push_back(window.request.end);
    std::sort(ends_.begin(), ends_.end());
  }

  std::vector<KLT_Request> run() {
    sweep();
    insertEmptyWindows();
    joinNeighbours();
    std::vector<KLT_Request> result;
    result.reserve(pieces_.size());
    for (Window& piece : pieces_) result.push_back(std::move(piece.request));
    return result;
  }

 private:
  // Makes a piece for each interval between two neighbouring instants in which a window is open.
  void sweep() {
    std::vector<uint64_t> instants;
    std::vector<const Window*> ending;
    for (const Window& window : open_) {
      instants.push_back(window.request.start);
      instants.push_back(window.request.end);
      ending.push_back(&window);
    }
    std::sort(instants.begin(), instants.end());
    instants.erase(std::unique(instants.begin(), instants.end()), instants.end());
    std::sort(ending.begin(), ending.end(),
              [](const Window* a, const Window* b) { return a->request.end < b->request.end; });

    std::set<const Window*> active;  // by address, which is the order of `open_`
    auto starts = open_.begin();
    auto ends = ending.begin();
    for (size_t i = 0; i + 1 < instants.size(); i++) {
      for (; ends != ending.end() && (*ends)->request.end <= instants[i]; ++ends) {
        active.erase(*ends);
      }
      for (; starts != open_.end() && starts->request.start <= instants[i]; ++starts) {
        active.insert(&*starts);
      }
      if (!active.empty()) append(instants[i], instants[i + 1], join(active));
    }
  }

  // The union of the windows' selections. If one window has this selection, the result is a copy of
  // that window, so that its threads keep their order.
  template <class Windows>
  Window join(const Windows& windows) {
    uint32_t categories = 0;
    std::set<int> ids;
    for (const Window* window : windows) {
      categories |= window->request.categories;
      ids.insert(window->threads);
    }
    Window joined;
    joined.threads = threadSets_.unite(std::vector<int>(ids.begin(), ids.end()));
    joined.request.categories = categories;
    for (const Window* window : windows) {
      if (sameSelection(*window, joined)) return *window;
    }
    joined.request.threads = threadSets_.list(joined.threads);
    return joined;
  }

  void append(uint64_t start, uint64_t end, Window piece) {
    piece.request.start = start;
    piece.request.end = end;
    pieces_.push_back(std::move(piece));
  }

  // A window whose start is its end selects no event, but the state at this instant is delivered.
  // So the window becomes a piece, before those that start at the instant. Windows of one instant
  // that the piece before doesn't cover are united. The union is left out if another window
  // surrounds the instant, or if the piece after covers it.
  void insertEmptyWindows() {
    std::vector<Window> result;
    auto piece = pieces_.begin();
    for (auto first = empty_.begin(); first != empty_.end();) {
      const uint64_t instant = first->request.start;
      while (piece != pieces_.end() && piece->request.start < instant) {
        result.push_back(std::move(*piece++));
      }
      std::vector<const Window*> kept;
      for (; first != empty_.end() && first->request.start == instant; ++first) {
        if (!coveredBefore(result, *first)) kept.push_back(&*first);
      }
      if (kept.empty() || isSurrounded(instant)) continue;
      Window joined = join(kept);
      joined.request.start = joined.request.end = instant;
      const bool coveredAfter =
          piece != pieces_.end() && piece->request.start == instant && covers(*piece, joined);
      if (!coveredAfter) result.push_back(std::move(joined));
    }
    std::move(piece, pieces_.end(), std::back_inserter(result));
    pieces_ = std::move(result);
  }

  static bool coveredBefore(const std::vector<Window>& before, const Window& window) {
    return !before.empty() && before.back().request.end == window.request.start &&
           covers(before.back(), window);
  }

  // Whether a window begins before the instant and ends after it.
  [[nodiscard]] bool isSurrounded(uint64_t instant) const {
    const auto started = std::partition_point(
        open_.begin(), open_.end(), [&](const Window& w) { return w.request.start < instant; });
    const auto ended = std::upper_bound(ends_.begin(), ends_.end(), instant);
    return started - open_.begin() > ended - ends_.begin();
  }

  // Joins adjoining pieces with the same selection, unless a window without length is between them.
  void joinNeighbours() {
    std::vector<Window> result;
    for (Window& piece : pieces_) {
      const bool follows = !result.empty() && result.back().request.end == piece.request.start &&
                           sameSelection(result.back(), piece);
      if (follows) {
        result.back().request.end = piece.request.end;
      } else {
        result.push_back(std::move(piece));
      }
    }
    pieces_ = std::move(result);
  }

  ThreadSets threadSets_;
  std::vector<Window> open_;
  std::vector<uint64_t> ends_;  // of `open_`, sorted
  std::vector<Window> empty_;   // windows without length
  std::vector<Window> pieces_;
};

}  // namespace

KLT_Request* KLT_RequestAlloc() { return std::make_unique<KLT_Request>().release(); }

void KLT_RequestRelease(KLT_Request* request) { delete request; }

KLT_Request* KLT_RequestCopy(const KLT_Request* request) {
  auto copy = std::make_unique<KLT_Request>(*request);
  if (copy->end < copy->start) copy->end = ~uint64_t{0};
  return copy.release();
}

std::vector<KLT_Request> KLT_NormaliseRequests(std::span<const KLT_Request* const> requests) {
  if (requests.size() == 1) {
    const std::unique_ptr<KLT_Request> copy(KLT_RequestCopy(requests.front()));
    return {std::move(*copy)};
  }
  return Normaliser(requests).run();
}
