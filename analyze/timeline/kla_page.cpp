// Writes the page of a trace. See kla_page.h.
#include "analyze/timeline/kla_page.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <numeric>
#include <string_view>
#include <tuple>
#include <utility>

#include "analyze/tables/kla_profile.h"
#include "analyze/tables/kla_table.h"
#include "analyze/tables/kla_tables.h"
#include "analyze/tables/kla_text.h"
#include "analyze/timeline/kla_encode.h"
#include "kla_page_files.h"

namespace kla {

namespace {

constexpr size_t kMostRows = 2000;  // of the tables below the timeline
constexpr size_t kMostPairs = 6000;
constexpr uint32_t kWholeSpan = ~uint32_t{0} - 1;

// A word of a shell's command line.
std::string shellWord(const std::string& text) {
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

std::string number(double value) {
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), "%.9g", std::isfinite(value) ? value : 0);
  return text.data();
}

// Makes the JSON and the columns of one page.
class Page {
 public:
  Page(const Analysis& analysis, Recording& recording, const std::string& trace)
      : analysis_(analysis), recording_(recording), trace_(trace), span_(analysis.span()) {
    unit_ = (span_.end - span_.start) / kWholeSpan + 1;
    for (const Analysis::Process& process : analysis.processes()) {
      for (const uint32_t thread : process.threads) threads_.push_back(thread);
    }
    rowOf_.resize(analysis.calls.size(), kNone);
    for (uint32_t row = 0; row < threads_.size(); ++row) rowOf_[threads_[row]] = row;
  }

  std::string data() {
    addDensity();
    addBars("call", recording_.calls.elements(), functions_);
    addBars("scope", recording_.scopes.elements(), scopes_);
    addBars("file", recording_.files.elements(), files_);
    addMessages();
    addOperations();
    addWaits();
    addTracks();
    profile_ = profile();  // adds functions, so before the list of names
    const std::string json =
        "{" + head() + "," + lists() + "," + tables() + ",\"columns\":" + columns_.json() + "}";
    return pageData(json, columns_);
  }

 private:
  // Ids of names, in the order of first use.
  struct Names {
    KeyIndex ids{1 << 16};
    uint32_t operator()(uint32_t id) { return ids[id]; }
    template <class NameOf>
    [[nodiscard]] std::string json(NameOf nameOf) const {
      std::string list = "[";
      for (const uint64_t id : ids.keys()) {
        list += list.size() > 1 ? "," : "";
        list += nameOf(static_cast<uint32_t>(id));
      }
      return list + "]";
    }
  };

  [[nodiscard]] uint32_t units(Time time) const {
    return static_cast<uint32_t>((std::clamp(time, span_.start, span_.end) - span_.start) / unit_);
  }
  [[nodiscard]] uint32_t row(uint32_t thread) const {
    return thread == kNone ? kNone : rowOf_[thread];
  }

  // Adds a column with one number for each element.
  template <class Elements, class NumberOf>
  void column(const std::string& name, const Elements& elements, NumberOf numberOf,
              bool ascending = false) {
    std::vector<uint32_t> numbers;
    numbers.reserve(elements.size());
    for (const auto& element : elements) numbers.push_back(numberOf(element));
    columns_.add(name.c_str(), numbers, ascending);
  }

  void addDensity() {
    for (size_t rank = 0; rank < Density::kRanks; ++rank) {
      std::vector<uint32_t> functions, shares;
      for (const uint32_t thread : threads_) {
        const std::vector<Density::Cell>& cells = recording_.density.cells(thread);
        for (uint32_t bin = 0; bin < recording_.density.bins(); ++bin) {
          const bool isKnown = bin < cells.size() && cells[bin].functions[rank] != kNone;
          functions.push_back(isKnown ? functions_(cells[bin].functions[rank]) + 1 : 0);
          shares.push_back(isKnown ? cells[bin].shares[rank] : 0);
        }
      }
      const std::string number = std::to_string(rank);
      columns_.add(("density" + number).c_str(), functions);
      columns_.add(("share" + number).c_str(), shares);
    }
  }

  // Bars are sorted by row, depth and time.
  void addBars(const std::string& name, std::vector<Bar>& bars, Names& names) {
    std::sort(bars.begin(), bars.end(), [&](const Bar& a, const Bar& b) {
      return std::tuple(row(a.thread), a.depth, a.from, a.to) <
             std::tuple(row(b.thread), b.depth, b.from, b.to);
    });
    column(
        name + "Row", bars, [&](const Bar& bar) { return row(bar.thread); }, true);
    column(name + "Depth", bars, [](const Bar& bar) { return bar.depth; });
    column(name + "What", bars, [&](const Bar& bar) { return names(bar.what); });
    column(name + "Number", bars, [](const Bar& bar) { return bar.number; });
    column(
        name + "From", bars, [&](const Bar& bar) { return units(bar.from); }, true);
    column(name + "Length", bars, [&](const Bar& bar) { return units(bar.to) - units(bar.from); });
  }

  void addMessages() {
    std::vector<Line>& lines = recording_.messages.elements();
    std::sort(lines.begin(), lines.end(),
              [](const Line& a, const Line& b) { return a.sent < b.sent; });
    column(
        "messageFrom", lines, [&](const Line& line) { return units(line.sent); }, true);
    column(
        "messageTo", lines, [&](const Line& line) { return units(line.received); }, true);
    column("messageSender", lines, [&](const Line& line) { return row(line.sender); });
    column("messageReceiver", lines, [&](const Line& line) { return row(line.receiver); });
    column("messageBytes", lines, [](const Line& line) { return line.bytes; });
    column("messageTag", lines, [](const Line& line) { return line.tag; });
    column("messageCommunicator", lines,
           [&](const Line& line) { return communicators_(line.communicator); });
  }

  // The parts of all operations follow each other; an operation has the number of its parts.
  void addOperations() {
    std::vector<Operation>& operations = recording_.operations.elements();
    std::sort(operations.begin(), operations.end(),
              [](const Operation& a, const Operation& b) { return a.from < b.from; });
    std::vector<Part> parts;
    for (const Operation& operation : operations) {
      parts.insert(parts.end(), operation.parts.begin(), operation.parts.end());
    }
    column("operationWhat", operations,
           [&](const Operation& o) { return operations_(o.operation); });
    column("operationCommunicator", operations,
           [&](const Operation& o) { return communicators_(o.communicator); });
    column(
        "operationFrom", operations, [&](const Operation& o) { return units(o.from); }, true);
    column(
        "operationTo", operations, [&](const Operation& o) { return units(o.to); }, true);
    column("operationParts", operations,
           [](const Operation& o) { return static_cast<uint32_t>(o.parts.size()); });
    column("partRow", parts, [&](const Part& part) { return row(part.thread); });
    column(
        "partFrom", parts, [&](const Part& part) { return units(part.start); }, true);
    column(
        "partTo", parts, [&](const Part& part) { return units(part.end); }, true);
  }

  void addWaits() {
    std::vector<WaitBar>& waits = recording_.waits.elements();
    std::sort(waits.begin(), waits.end(), [&](const WaitBar& a, const WaitBar& b) {
      return std::pair(row(a.wait.thread), a.wait.from) <
             std::pair(row(b.wait.thread), b.wait.from);
    });
    column(
        "waitRow", waits, [&](const WaitBar& w) { return row(w.wait.thread); }, true);
    column(
        "waitFrom", waits, [&](const WaitBar& w) { return units(w.wait.from); }, true);
    column("waitLength", waits,
           [&](const WaitBar& w) { return units(w.wait.to) - units(w.wait.from); });
    column("waitKind", waits, [](const WaitBar& w) { return static_cast<uint32_t>(w.wait.kind); });
    column("waitWhat", waits, [&](const WaitBar& w) { return functions_(w.wait.function); });
    column("waitCause", waits, [&](const WaitBar& w) { return row(w.wait.cause); });
  }

  void addTracks() {
    std::vector<Track::Point> points;
    for (const auto& [key, track] : recording_.tracks) {
      if (row(key.first) == kNone) continue;  // a thread without calls
      tracks_ += tracks_.empty() ? "" : ",";
      const uint32_t index = analysis_.definitions.counterIds.find(key.second);
      const std::string unit = index == kNone ? "" : analysis_.definitions.counters[index].unit;
      tracks_ += "{\"row\":" + std::to_string(row(key.first)) +
                 ",\"name\":" + jsonString(analysis_.definitions.counterName(key.second)) +
                 ",\"unit\":" + jsonString(unit) +
                 ",\"count\":" + std::to_string(track.points.size()) + "}";
      points.insert(points.end(), track.points.begin(), track.points.end());
    }
    const auto bits = [](double value) {
      return std::bit_cast<uint32_t>(static_cast<float>(value));
    };
    column(
        "pointTime", points, [&](const Track::Point& p) { return units(p.time); }, true);
    column("pointLow", points, [&](const Track::Point& p) { return bits(p.low); });
    column("pointHigh", points, [&](const Track::Point& p) { return bits(p.high); });
  }

  [[nodiscard]] std::string head() const {
    const double resolution = analysis_.definitions.resolution;
    const auto kept = [](const char* name, auto& longest) {
      return "\"" + std::string(name) + "\":[" + std::to_string(longest.elements().size()) + "," +
             std::to_string(longest.seen()) + "]";
    };
    std::string text =
        "\"trace\":" + jsonString(trace_) + ",\"word\":" + jsonString(shellWord(trace_));
    text += ",\"from\":" + secondsText(span_.start, resolution);
    text += ",\"span\":" + secondsText(span_.end - span_.start, resolution);
    text += ",\"unit\":" + number(resolution * static_cast<double>(unit_));
    text += ",\"decimals\":" + std::to_string(decimalsOf(resolution));
    text += ",\"bins\":" + std::to_string(recording_.density.bins());
    text += ",\"leastCall\":" + std::to_string(recording_.calls.least() / unit_);
    text += ",\"isRaw\":" + std::string(analysis_.rawEvents != 0 ? "true" : "false");
    text += ",\"kept\":{" + kept("calls", recording_.calls) + "," +
            kept("messages", recording_.messages) + "," +
            kept("operations", recording_.operations) + "," + kept("waits", recording_.waits) +
            "," + kept("scopes", recording_.scopes) + "," + kept("files", recording_.files) + "}";
    return text;
  }

  // The names that the columns refer to.
  [[nodiscard]] std::string lists() const {
    const Definitions& d = analysis_.definitions;
    std::string threads;
    for (const uint32_t thread : threads_) {
      const uint32_t gtp = analysis_.calls[thread].gtp();
      threads += threads.empty() ? "" : ",";
      threads += "[" + jsonString(threadLabel(gtp)) + "," + std::to_string(processOf(gtp)) + "," +
                 jsonString(d.threadName(gtp)) + "]";
    }
    std::string kinds;
    for (const char* kind : kWaitKinds) {
      kinds += kinds.empty() ? "" : ",";
      kinds += jsonString(kind);
    }
    return "\"threads\":[" + threads + "],\"kinds\":[" + kinds +
           "],\"functions\":" + functions_.json([&](uint32_t id) {
             const Function& f = d.functions[id];
             return "[" + jsonString(d.functionName(id)) + "," + jsonString(d.className(f)) + "," +
                    (f.isMpi ? "1" : "0") + "]";
           }) +
           ",\"operations\":" +
           operations_.json([&](uint32_t id) { return jsonString(d.operationName(id)); }) +
           ",\"communicators\":" +
           communicators_.json([&](uint32_t id) { return jsonString(d.communicatorName(id)); }) +
           ",\"scopes\":" + scopes_.json([&](uint32_t id) { return jsonString(d.scopeName(id)); }) +
           ",\"files\":" + files_.json([&](uint32_t id) { return jsonString(d.fileName(id)); }) +
           ",\"tracks\":[" + tracks_ + "]";
  }

  // Functions with their totals, the costliest first.
  [[nodiscard]] std::string profile() {
    Profile rows = functionProfile(analysis_);
    std::erase_if(rows, [](const ProfileRow& row) { return row.function == kNone; });
    std::sort(rows.begin(), rows.end(),
              [](const ProfileRow& a, const ProfileRow& b) { return a.exclusive > b.exclusive; });
    rows.resize(std::min(rows.size(), kMostRows));
    const double resolution = analysis_.definitions.resolution;
    std::string text;
    for (const ProfileRow& row : rows) {
      text += text.empty() ? "" : ",";
      text += "[" + std::to_string(functions_(row.function)) + "," + std::to_string(row.calls) +
              "," + secondsText(row.inclusive, resolution) + "," +
              secondsText(row.exclusive, resolution) + "," + secondsText(row.least, resolution) +
              "," + secondsText(row.most, resolution) + "," + std::to_string(row.mostProcess) + "]";
    }
    return text;
  }

  [[nodiscard]] std::string tables() const {
    std::string efficiency;
    if (analysis_.bins != nullptr) {
      std::vector<uint32_t> processes;
      for (const auto& process : analysis_.processes()) processes.push_back(process.process);
      for (const EfficiencyRow& row : analysis_.bins->rows(processes)) {
        efficiency += efficiency.empty() ? "" : ",";
        efficiency += "[" + number(row.parallel) + "," + number(row.loadBalance) + "," +
                      number(row.communication) + "]";
      }
    }
    return "\"profile\":[" + profile_ + "],\"efficiency\":[" + efficiency + "],\"pairs\":[" +
           pairs() + "],\"waits\":[" + waits() + "]";
  }

  // Pairs of rows: sender, receiver, messages, bytes; those with most bytes.
  [[nodiscard]] std::string pairs() const {
    const std::vector<uint64_t>& keys = analysis_.messages.pairs().keys();
    const std::vector<MessageTotals>& totals = analysis_.messages.totals();
    std::vector<size_t> order(keys.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::sort(order.begin(), order.end(),
              [&](size_t a, size_t b) { return totals[a].bytes > totals[b].bytes; });
    order.resize(std::min(order.size(), kMostPairs));
    std::string text;
    for (const size_t i : order) {
      const uint32_t sender = row(static_cast<uint32_t>(keys[i] >> 32));
      const uint32_t receiver = row(static_cast<uint32_t>(keys[i]));
      if (sender == kNone || receiver == kNone) continue;
      text += text.empty() ? "[" : ",[";
      text += std::to_string(sender) + "," + std::to_string(receiver) + "," +
              std::to_string(totals[i].count) + "," + std::to_string(totals[i].bytes) + "]";
    }
    return text;
  }

  // Rows of the table of waits: kind, row, function, cause, count, seconds; the longest first.
  [[nodiscard]] std::string waits() const {
    std::vector<Waits::Row> rows = analysis_.waits.rows();
    std::sort(rows.begin(), rows.end(),
              [](const Waits::Row& a, const Waits::Row& b) { return a.ticks > b.ticks; });
    rows.resize(std::min(rows.size(), kMostRows));
    std::string text;
    for (const Waits::Row& wait : rows) {
      const uint32_t cause = row(wait.cause);
      text += text.empty() ? "[" : ",[";
      text += std::to_string(static_cast<int>(wait.kind)) + "," + std::to_string(row(wait.thread)) +
              "," + jsonString(functionName(analysis_, wait.function)) + "," +
              (cause == kNone ? "-1" : std::to_string(cause)) + "," + std::to_string(wait.count) +
              "," + secondsText(wait.ticks, analysis_.definitions.resolution) + "]";
    }
    return text;
  }

  const Analysis& analysis_;
  Recording& recording_;
  const std::string& trace_;
  Window span_;
  Time unit_ = 1;                  // raw time of a unit of the page
  std::vector<uint32_t> threads_;  // by row
  std::vector<uint32_t> rowOf_;    // by thread
  Names functions_, scopes_, files_, operations_, communicators_;
  Columns columns_;
  std::string tracks_, profile_;
};

void replace(std::string& text, std::string_view mark, std::string_view with) {
  const size_t at = text.find(mark);
  if (at != std::string::npos) text.replace(at, mark.size(), with);
}

}  // namespace

std::string makePage(const Analysis& analysis, Recording& recording, const std::string& trace) {
  std::string page;
  const auto halve = [](auto& longest) { longest.shrink(longest.elements().size() / 2); };
  for (int attempt = 0; attempt < 20; ++attempt) {
    page = kPageHtml;
    replace(page, "/*STYLE*/", kPageStyle);
    replace(page, "/*SCRIPT*/", kPageScript);
    replace(page, "/*DATA*/", Page(analysis, recording, trace).data());
    if (page.size() <= kMostPageBytes) break;
    halve(recording.calls);
    halve(recording.messages);
    halve(recording.waits);
    halve(recording.operations);
    halve(recording.scopes);
    halve(recording.files);
  }
  return page;
}

}  // namespace kla
