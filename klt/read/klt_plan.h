// Turns the requests of one pass into what each component has to deliver: a sequence of pieces of
// the time, sorted and without overlaps, in each of which the selection stays the same.
//
// At an instant the categories of all requests that include it are united, and so are their
// threads. The categories are the same for all components. The threads depend on the component:
// only requests that share threads with its list matter to it, and most components are in the same
// relation to the requests. So the pieces are made for each relation that occurs, not for each
// component, and a request for one thread costs nothing in the components of others.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "klt/index/klt_threads.h"
#include "klt/read/klt_request.h"

class KLT_RequestPlan {
 public:
  using List = const KLT_ThreadList*;

  struct Piece {
    uint64_t start;
    uint64_t end;
    uint32_t categories;
    List threads;  // selected ones; empty: all that the component has
    List given;    // the same set as it is delivered: as in a request that selects all of it
  };
  // A list of the requests, and the threads that it shares with the component: empty for all of the
  // component's.
  struct Part {
    uint32_t list;
    List threads;
    friend bool operator==(const Part&, const Part&) = default;
  };
  using Relation = std::vector<Part>;

  // An `end` below `start` means "no end". A single request is otherwise unchanged.
  KLT_RequestPlan(std::span<const KLT_Request* const> requests, KLT_ThreadLists& lists);

  // The relation to a component with the threads of `component`, or to one with any threads.
  [[nodiscard]] Relation relationTo(List component);
  [[nodiscard]] Relation relationToAny() const;

  // The pieces for the components of a relation. For those with any threads, `given` keeps the form
  // of the requests.
  [[nodiscard]] std::vector<Piece> piecesOf(const Relation& relation, bool any);

 private:
  struct Window {
    uint64_t start;
    uint64_t end;
    uint32_t categories;
    List given;
    List threads;       // the sorted form of `given`; `given` if that is empty
    uint32_t from = 0;  // `start` and `end` as indices in `instants_`
    uint32_t to = 0;
  };
  // A list of threads and the windows that select it.
  struct Listed {
    List threads;
    bool isWrong;                   // has invalid entries
    std::vector<uint32_t> windows;  // indices in `open_`
  };
  // A part of the time with the same categories, from one index in `instants_` to another.
  struct Segment {
    uint32_t from;
    uint32_t to;
    uint32_t categories;
    bool all;  // a window without a list of threads is open
  };
  // A window of a relation; then a part of the time with its threads, null for none.
  struct Span {
    uint32_t from;
    uint32_t to;
    List threads;
  };
  // A section of a list.
  struct Range {
    int64_t low;
    int64_t high;
    int64_t highest;  // of this and all before it
    uint32_t list;
  };
  // A window without length, or several of one instant, that the pieces contain.
  struct Instant {
    Piece piece;
    uint32_t list;  // of its threads; kAll for all of them
  };
  static constexpr uint32_t kAll = ~uint32_t{0};
  class Givens;

  void sortWindows();
  void makeSegments();
  uint32_t listOf(List threads);
  void keepInstants();
  void indexLists();
  [[nodiscard]] bool isSurrounded(uint64_t instant) const;
  [[nodiscard]] bool covers(const Piece& outer, const Piece& inner);
  [[nodiscard]] Piece join(std::span<const Piece> windows);
  [[nodiscard]] std::vector<uint32_t> nearTo(PAL_TripletSpan component) const;
  [[nodiscard]] List unite(List first, std::span<const List> more);
  void uniteOver(size_t from, size_t to, List above, std::vector<Span> spans,
                 std::vector<List>& united);
  [[nodiscard]] std::vector<Span> selectedSpans(const Relation& relation);
  void addPieces(const Span& span, std::vector<Piece>& pieces) const;
  void insertInstants(const Relation& relation, bool any, std::vector<Piece>& pieces);

  KLT_ThreadLists& lists_;
  std::vector<Window> open_;
  std::vector<Window> empty_;       // windows without length
  std::vector<uint64_t> instants_;  // at which one of `open_` starts or ends
  std::vector<uint64_t> ends_;      // of `open_`, sorted
  std::vector<Segment> segments_;
  std::vector<Segment> whole_;                  // those of `segments_` with `all`
  std::vector<Listed> listed_;                  // by list
  PAL_HashMap<uint32_t, uint32_t> listedById_;  // index in `listed_`
  std::vector<Range> ranges_;                   // of `listed_`, by `low`
  std::vector<Instant> kept_;
};
