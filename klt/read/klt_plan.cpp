// Plans the requests of a pass. See klt_plan.h.
//
// Categories: one sweep over the instants at which a window starts or ends counts the open windows
// of each category. Threads: the time is halved again and again. A window that covers a part is
// united with what is selected in the whole part, on the way down, so that nothing is ever taken
// out of a union and each half knows its selection at the end.
#include "klt/read/klt_plan.h"

#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <set>
#include <tuple>

namespace {

constexpr uint32_t kAllCategories = 1;

using List = KLT_RequestPlan::List;
using Piece = KLT_RequestPlan::Piece;

bool sameCategories(uint32_t a, uint32_t b) { return a == b || (a & b & kAllCategories) != 0; }

// Equal for categories of which sameCategories is true.
uint32_t categoryKey(uint32_t categories) {
  return (categories & kAllCategories) != 0 ? kAllCategories : categories;
}

bool coversCategories(uint32_t outer, uint32_t inner) {
  return (outer & kAllCategories) != 0 || (inner & ~outer) == 0;
}

bool hasNumbers(const PAL_Triplet& t) {
  return t.stride > 0 ? t.first <= t.last : t.stride < 0 && t.first >= t.last;
}

template <class T>
void sortUnique(std::vector<T>& values) {
  std::sort(values.begin(), values.end());
  values.erase(std::unique(values.begin(), values.end()), values.end());
}

// The index of a value that is in a sorted list.
template <class T>
uint32_t indexIn(const std::vector<T>& sorted, T value) {
  return static_cast<uint32_t>(std::lower_bound(sorted.begin(), sorted.end(), value) -
                               sorted.begin());
}

// The number of open windows of each category.
class CategoryCounts {
 public:
  void add(uint32_t categories, int32_t change) {
    for (uint32_t rest = categories; rest != 0; rest &= rest - 1) {
      const auto bit = static_cast<unsigned>(std::countr_zero(rest));
      counts_[bit] += change;
      open_ = (open_ & ~(uint32_t{1} << bit)) | uint32_t{counts_[bit] != 0} << bit;
    }
  }
  [[nodiscard]] uint32_t open() const { return open_; }

 private:
  std::array<int32_t, 32> counts_{};
  uint32_t open_ = 0;
};

// Adjoining pieces with the same selection become one, unless one without length is between them.
void joinNeighbours(std::vector<Piece>& pieces) {
  size_t joined = 0;
  for (const Piece& piece : pieces) {
    if (joined != 0) {
      Piece& last = pieces[joined - 1];
      if (last.end == piece.start && last.threads == piece.threads &&
          sameCategories(last.categories, piece.categories)) {
        last.end = piece.end;
        continue;
      }
    }
    pieces[joined++] = piece;
  }
  pieces.resize(joined);
}

}  // namespace

// Finds the form in which a piece's threads are delivered: that of the first window that selects
// all of the piece, otherwise the sorted one.
class KLT_RequestPlan::Givens {
 public:
  explicit Givens(const std::vector<Window>& windows) : windows_(windows) {
    for (uint32_t i = 0; i < windows.size(); ++i) ending_.push_back(i);
    std::sort(ending_.begin(), ending_.end(),
              [&](uint32_t a, uint32_t b) { return windows[a].to < windows[b].to; });
  }

  // `instant` doesn't decrease from call to call.
  List of(uint32_t instant, List threads, uint32_t categories) {
    for (; started_ < windows_.size() && windows_[started_].from <= instant; ++started_) {
      open_[keyOf(windows_[started_].threads, windows_[started_].categories)].insert(started_);
    }
    for (; ended_ < ending_.size() && windows_[ending_[ended_]].to <= instant; ++ended_) {
      const Window& window = windows_[ending_[ended_]];
      open_[keyOf(window.threads, window.categories)].erase(ending_[ended_]);
    }
    const auto found = open_.find(keyOf(threads, categories));
    return found == open_.end() || found->second.empty() ? threads
                                                         : windows_[*found->second.begin()].given;
  }

 private:
  static uint64_t keyOf(List threads, uint32_t categories) {
    return uint64_t{threads->id()} << 32 | categoryKey(categories);
  }

  const std::vector<Window>& windows_;  // by start
  std::vector<uint32_t> ending_;        // by end
  uint32_t started_ = 0;
  size_t ended_ = 0;
  PAL_HashMap<uint64_t, std::set<uint32_t>> open_;
};

KLT_RequestPlan::KLT_RequestPlan(std::span<const KLT_Request* const> requests,
                                 KLT_ThreadLists& lists)
    : lists_(lists) {
  for (const KLT_Request* request : requests) {
    const List given = lists.share(request->threads);
    // A list that contains no thread must not become the empty list, which means all threads.
    const List sorted = requests.size() == 1 ? given : lists.unite(given, lists.none());
    const uint64_t end = request->end < request->start ? ~uint64_t{0} : request->end;
    (request->start == end ? empty_ : open_)
        .push_back({.start = request->start,
                    .end = end,
                    .categories = request->categories,
                    .given = given,
                    .threads = sorted->empty() ? given : sorted});
  }
  sortWindows();
  makeSegments();
  for (uint32_t i = 0; i < open_.size(); ++i) {
    if (!open_[i].threads->empty()) listed_[listOf(open_[i].threads)].windows.push_back(i);
  }
  keepInstants();
  indexLists();
}

void KLT_RequestPlan::sortWindows() {
  const auto byTime = [](const Window& a, const Window& b) {
    return std::tie(a.start, a.end) < std::tie(b.start, b.end);
  };
  std::stable_sort(open_.begin(), open_.end(), byTime);
  std::stable_sort(empty_.begin(), empty_.end(), byTime);
  for (const Window& window : open_) {
    ends_.push_back(window.end);
    instants_.insert(instants_.end(), {window.start, window.end});
  }
  std::sort(ends_.begin(), ends_.end());
  sortUnique(instants_);
  for (Window& window : open_) {
    window.from = indexIn(instants_, window.start);
    window.to = indexIn(instants_, window.end);
  }
}

void KLT_RequestPlan::makeSegments() {
  std::vector<const Window*> ending;
  for (const Window& window : open_) ending.push_back(&window);
  std::sort(ending.begin(), ending.end(),
            [](const Window* a, const Window* b) { return a->to < b->to; });
  CategoryCounts counts;
  size_t openAll = 0;  // windows without a list of threads
  auto starts = open_.begin();
  auto ends = ending.begin();
  for (uint32_t i = 0; i + 1 < instants_.size(); ++i) {
    for (; ends != ending.end() && (*ends)->to <= i; ++ends) {
      counts.add((*ends)->categories, -1);
      openAll -= (*ends)->threads->empty() ? 1 : 0;
    }
    for (; starts != open_.end() && starts->from <= i; ++starts) {
      counts.add(starts->categories, 1);
      openAll += starts->threads->empty() ? 1 : 0;
    }
    if (starts - open_.begin() == ends - ending.begin()) continue;  // none is open
    const Segment next{i, i + 1, counts.open(), openAll != 0};
    Segment* last = segments_.empty() ? nullptr : &segments_.back();
    if (last != nullptr && last->to == i && last->categories == next.categories &&
        last->all == next.all) {
      last->to = i + 1;
    } else {
      segments_.push_back(next);
    }
  }
  std::copy_if(segments_.begin(), segments_.end(), std::back_inserter(whole_),
               [](const Segment& segment) { return segment.all; });
}

uint32_t KLT_RequestPlan::listOf(List threads) {
  const auto [known, isNew] =
      listedById_.try_emplace(threads->id(), static_cast<uint32_t>(listed_.size()));
  if (isNew) {
    const PAL_Triplets& triplets = threads->triplets();
    listed_.push_back({threads, !std::all_of(triplets.begin(), triplets.end(), hasNumbers), {}});
  }
  return known->second;
}

void KLT_RequestPlan::indexLists() {
  for (uint32_t list = 0; list < listed_.size(); ++list) {
    for (const PAL_Triplet& t : listed_[list].threads->triplets()) {
      if (!hasNumbers(t)) continue;
      const auto [low, high] = std::minmax(t.first, t.last);
      ranges_.push_back({low, high, high, list});
    }
  }
  std::sort(ranges_.begin(), ranges_.end(),
            [](const Range& a, const Range& b) { return a.low < b.low; });
  for (size_t i = 1; i < ranges_.size(); ++i) {
    ranges_[i].highest = std::max(ranges_[i].highest, ranges_[i - 1].highest);
  }
}

KLT_RequestPlan::Relation KLT_RequestPlan::relationToAny() const {
  Relation relation;
  for (uint32_t list = 0; list < listed_.size(); ++list) {
    relation.push_back({list, listed_[list].threads});
  }
  return relation;
}

KLT_RequestPlan::Relation KLT_RequestPlan::relationTo(List component) {
  const PAL_Triplets& triplets = component->triplets();
  const bool isOne =
      triplets.size() == 1 && triplets[0].first == triplets[0].last && triplets[0].stride == 1;
  Relation relation;
  for (const uint32_t list : nearTo(triplets)) {
    const Listed& listed = listed_[list];
    // Invalid entries are reported once, and if one is inverted, the list selects nothing.
    const List asked =
        listed.isWrong ? lists_.unite(listed.threads, lists_.none()) : listed.threads;
    List common = component;
    if (!isOne) {
      common = lists_.share(component->set().intersect(asked->triplets()));
    } else if (!asked->contains(static_cast<uint32_t>(triplets[0].first))) {
      continue;
    }
    if (common->empty()) continue;
    relation.push_back({list, common == component ? lists_.none() : common});
  }
  return relation;
}

// The lists that may have threads in common with a component.
std::vector<uint32_t> KLT_RequestPlan::nearTo(PAL_TripletSpan component) const {
  constexpr size_t kFew = 8;  // for more triplets, comparing the lists is cheaper than searching
  std::vector<uint32_t> near;
  if (component.size() > kFew) {
    for (uint32_t list = 0; list < listed_.size(); ++list) near.push_back(list);
    return near;
  }
  for (const PAL_Triplet& t : component) {
    if (!hasNumbers(t)) continue;
    const auto [low, high] = std::minmax(t.first, t.last);
    auto range = std::partition_point(ranges_.begin(), ranges_.end(),
                                      [last = high](const Range& r) { return r.low <= last; });
    while (range != ranges_.begin() && (--range)->highest >= low) {
      if (range->high >= low) near.push_back(range->list);
    }
  }
  sortUnique(near);
  return near;
}

// The union of `first`, unless that is null, and of the other lists. Entries that contain no thread
// are left out unless there are no others.
KLT_RequestPlan::List KLT_RequestPlan::unite(List first, std::span<const List> more) {
  if (first == nullptr) return more.size() == 1 ? more[0] : unite(more[0], more.subspan(1));
  PAL_Triplets all = first->triplets();
  PAL_Triplets valid[2];  // `first` is apart, because it is usually sorted
  std::copy_if(all.begin(), all.end(), std::back_inserter(valid[0]), hasNumbers);
  for (const List list : more) {
    if (first->empty() || list->empty()) return lists_.none();
    const PAL_Triplets& triplets = list->triplets();
    all.insert(all.end(), triplets.begin(), triplets.end());
    std::copy_if(triplets.begin(), triplets.end(), std::back_inserter(valid[1]), hasNumbers);
  }
  const PAL_Triplets united = PAL_TripletsUnite(valid[0], valid[1]);
  return lists_.share(united.empty() ? all : united);
}

// Stores the union for each of the spans' parts from `from` to `to`. `above` is selected in all of
// them, and each of `spans` in some.
void KLT_RequestPlan::uniteOver(size_t from, size_t to, List above, std::vector<Span> spans,
                                std::vector<List>& united) {
  std::vector<List> here;
  std::erase_if(spans, [&](const Span& span) {
    const bool coversAll = span.from <= from && span.to >= to;
    if (coversAll && span.threads != above) here.push_back(span.threads);
    return coversAll;
  });
  std::sort(here.begin(), here.end(), [](List a, List b) { return a->id() < b->id(); });
  here.erase(std::unique(here.begin(), here.end()), here.end());
  if (!here.empty()) above = unite(above, here);
  if (spans.empty() || above == lists_.none()) {
    std::fill(united.begin() + static_cast<ptrdiff_t>(from),
              united.begin() + static_cast<ptrdiff_t>(to), above);
    return;
  }
  const size_t middle = from + (to - from) / 2;
  std::vector<Span> half;
  std::copy_if(spans.begin(), spans.end(), std::back_inserter(half),
               [&](const Span& span) { return span.from < middle; });
  uniteOver(from, middle, above, std::move(half), united);
  std::erase_if(spans, [&](const Span& span) { return span.to <= middle; });
  uniteOver(middle, to, above, std::move(spans), united);
}

// The parts of the time between the instants at which a window of the relation starts or ends, with
// the threads that these windows select.
std::vector<KLT_RequestPlan::Span> KLT_RequestPlan::selectedSpans(const Relation& relation) {
  std::vector<Span> windows;
  std::vector<uint32_t> borders{0, static_cast<uint32_t>(instants_.size())};
  for (const Part& part : relation) {
    for (const uint32_t number : listed_[part.list].windows) {
      windows.push_back({open_[number].from, open_[number].to, part.threads});
      borders.insert(borders.end(), {open_[number].from, open_[number].to});
    }
  }
  sortUnique(borders);
  for (Span& window : windows) {
    window.from = indexIn(borders, window.from);
    window.to = indexIn(borders, window.to);
  }
  std::vector<List> united(borders.size() - 1);
  uniteOver(0, united.size(), nullptr, std::move(windows), united);
  std::vector<Span> spans;
  for (size_t i = 0; i < united.size(); ++i) {
    spans.push_back({borders[i], borders[i + 1], united[i]});
  }
  return spans;
}

// Adds a piece for each segment in the span; only for those that select all threads if the span
// selects none.
void KLT_RequestPlan::addPieces(const Span& span, std::vector<Piece>& pieces) const {
  const std::vector<Segment>& segments = span.threads == nullptr ? whole_ : segments_;
  auto segment = std::partition_point(segments.begin(), segments.end(),
                                      [&](const Segment& s) { return s.to <= span.from; });
  for (; segment != segments.end() && segment->from < span.to; ++segment) {
    const List threads = segment->all ? lists_.none() : span.threads;
    pieces.push_back({.start = instants_[std::max(segment->from, span.from)],
                      .end = instants_[std::min(segment->to, span.to)],
                      .categories = segment->categories,
                      .threads = threads,
                      .given = threads});
  }
}

std::vector<Piece> KLT_RequestPlan::piecesOf(const Relation& relation, bool any) {
  std::vector<Piece> pieces;
  for (const Span& span : selectedSpans(relation)) addPieces(span, pieces);
  if (any) {
    Givens givens(open_);
    uint32_t instant = 0;
    for (Piece& piece : pieces) {
      while (instants_[instant] < piece.start) ++instant;
      piece.given = givens.of(instant, piece.threads, piece.categories);
    }
  }
  insertInstants(relation, any, pieces);
  joinNeighbours(pieces);
  return pieces;
}

// --- windows without length ---------------------------------------------------------------------

// Whether a window begins before the instant and ends after it.
bool KLT_RequestPlan::isSurrounded(uint64_t instant) const {
  const auto started = std::partition_point(
      open_.begin(), open_.end(), [&](const Window& window) { return window.start < instant; });
  const auto ended = std::upper_bound(ends_.begin(), ends_.end(), instant);
  return started - open_.begin() > ended - ends_.begin();
}

// Whether `inner` has the same threads as `outer` and no other categories, or the same categories
// and no other threads. A window with both fewer categories and fewer threads is kept as a
// selection of its own.
bool KLT_RequestPlan::covers(const Piece& outer, const Piece& inner) {
  if (outer.threads == inner.threads) return coversCategories(outer.categories, inner.categories);
  if (!sameCategories(outer.categories, inner.categories)) return false;
  return outer.threads->empty() ||
         (!inner.threads->empty() && lists_.isSubset(outer.threads, inner.threads));
}

// The union of windows of one instant. If one of them selects all of it, its threads keep the order
// in which they were given.
Piece KLT_RequestPlan::join(std::span<const Piece> windows) {
  Piece joined = windows[0];
  std::vector<List> lists;
  for (const Piece& window : windows.subspan(1)) {
    joined.categories |= window.categories;
    if (window.threads != joined.threads) lists.push_back(window.threads);
  }
  if (!lists.empty()) joined.threads = unite(joined.threads, lists);
  const auto same = std::find_if(windows.begin(), windows.end(), [&](const Piece& window) {
    return window.threads == joined.threads && sameCategories(window.categories, joined.categories);
  });
  joined.given = same == windows.end() ? joined.threads : same->given;
  return joined;
}

// A window whose start is its end selects no event, but the state of its instant is delivered, so
// it is kept: as a piece before those that start at the instant. Several of one instant are united.
// It is left out if another window surrounds the instant, or if an adjoining piece covers it.
void KLT_RequestPlan::keepInstants() {
  if (empty_.empty()) return;
  const std::vector<Piece> pieces = piecesOf(relationToAny(), true);
  for (auto first = empty_.begin(); first != empty_.end();) {
    const uint64_t instant = first->start;
    // The pieces that end and start at the instant; one piece if its windows meet there.
    const auto before = std::partition_point(
        pieces.begin(), pieces.end(), [&](const Piece& piece) { return piece.end < instant; });
    const auto after = std::partition_point(
        before, pieces.end(), [&](const Piece& piece) { return piece.end <= instant; });
    std::vector<Piece> kept;
    for (; first != empty_.end() && first->start == instant; ++first) {
      const Piece window{instant, instant, first->categories, first->threads, first->given};
      const bool isCovered =
          before != pieces.end() && before->start < instant && covers(*before, window);
      if (!isCovered) kept.push_back(window);
    }
    if (kept.empty() || isSurrounded(instant)) continue;
    const Piece joined = join(kept);
    if (after != pieces.end() && after->start <= instant && covers(*after, joined)) continue;
    kept_.push_back({joined, joined.threads->empty() ? kAll : listOf(joined.threads)});
  }
}

// Inserts the windows without length that matter to the relation.
void KLT_RequestPlan::insertInstants(const Relation& relation, bool any,
                                     std::vector<Piece>& pieces) {
  if (kept_.empty()) return;
  std::vector<Piece> result;
  auto next = pieces.begin();
  for (const Instant& kept : kept_) {
    for (; next != pieces.end() && next->end <= kept.piece.start; ++next) result.push_back(*next);
    if (next != pieces.end() && next->start < kept.piece.start) {
      result.push_back(*next);
      result.back().end = next->start = kept.piece.start;
    }
    const auto part = std::lower_bound(relation.begin(), relation.end(), kept.list,
                                       [](const Part& p, uint32_t list) { return p.list < list; });
    const bool isRelated = part != relation.end() && part->list == kept.list;
    if (kept.list != kAll && !isRelated) continue;
    result.push_back(kept.piece);
    if (any) continue;
    result.back().threads = result.back().given = isRelated ? part->threads : lists_.none();
  }
  std::copy(next, pieces.end(), std::back_inserter(result));
  pieces = std::move(result);
}
