// Loads seek points, chooses among them, and rebuilds the context. See klt_anchor.h.
//
// An anchor file contains groups: history records, then one `anchor` record with the offset in the
// data file at which reading can start and the running time there. Loading stores the offset of
// each group; only the group that is used is read again.
#include "klt/stream/klt_anchor.h"

#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "klt/index/klt_generic.h"
#include "klt/stream/klt_select.h"
#include "util/pal_error.h"
#include "util/pal_hash.h"

namespace {

// An open file of the trace with its own buffer.
struct OpenInput {
  KLT_IoFile* io = nullptr;
  KLT_Input input;
  std::string suffix;

  OpenInput() = default;
  OpenInput(const OpenInput&) = delete;
  OpenInput& operator=(const OpenInput&) = delete;
  ~OpenInput() { close(); }
  void close() {
    input.detach();
    if (io != nullptr) KLT_IoClose(io);
  }
  [[nodiscard]] bool open(KLT_FileHandle& handle, const KLT_FileEntry& file, bool anchors) {
    close();
    suffix = file.suffix + (anchors ? ".anc" : "");
    io = KLT_IoOpen(handle.container, KLT_ComponentName(handle, file, anchors).c_str());
    return io != nullptr && input.attach(io, handle.base.c_str(), suffix.c_str());
  }
};

enum class Read : uint8_t { kRecord, kEnd, kCorrupt };

// Reads the next record of an anchor file to the start of `record`.
Read readRecord(const KLT_FileHandle& handle, KLT_Input& input, KLT_RecordBuffer& record) {
  if (input.drained() && (!input.moreToRead() || !input.ensure(1))) return Read::kEnd;
  const KLT_DecoderEntry& entry = handle.decoders->entries[*input.at()];
  if (entry.parse == nullptr) return Read::kCorrupt;
  input.advance(1);
  uint64_t time = 0;
  size_t disk = 0;
  record.clear();
  switch (entry.parse(entry, input, record, time, disk)) {
    case KLT_Parse::kRecord:
      break;
    case KLT_Parse::kUnknown:
    case KLT_Parse::kTooLong:
      klt::storeNative(record.reserve(kKltRecordTimeAt), uint32_t{0});
      break;
    case KLT_Parse::kNoData:
      return Read::kEnd;
    case KLT_Parse::kCorrupt:
      input.stepBack();
      return Read::kCorrupt;
  }
  input.advance(disk);
  return Read::kRecord;
}

// Reads the anchors of a file. False if the file is damaged or the anchors are out of order.
bool readAnchors(const KLT_FileHandle& handle, KLT_Input& input, std::vector<KLT_Anchor>& anchors) {
  KLT_RecordBuffer record;
  uint64_t groupStart = 0;
  bool hasHistory = false;
  for (;;) {
    const uint64_t at = input.position();
    const Read read = readRecord(handle, input, record);
    if (read != Read::kRecord) return read == Read::kEnd;
    const unsigned number = KLT_RecordNumber(record.data());
    if (number == KLT_Row::history) hasHistory = true;
    if (number != KLT_Row::anchor) continue;
    KLT_Anchor anchor;
    anchor.time = KLT_Record<KLT_Row::anchor>::get64<0>(record.data());
    anchor.offset = KLT_Record<KLT_Row::anchor>::get64<1>(record.data());
    anchor.historyOffset = groupStart;
    anchor.historyBytes = at - groupStart;
    anchor.hasOffsetHistory = hasHistory;
    if (!anchors.empty() &&
        (anchor.time < anchors.back().time || anchor.offset < anchors.back().offset)) {
      return false;
    }
    anchors.push_back(anchor);
    groupStart = input.position();
    hasHistory = false;
  }
}

void ignoreAnchors(const KLT_FileHandle& handle, const KLT_Component& component) {
  if (std::exchange(component.anchors->isIgnored, true)) return;
  PAL_Warning("Ignoring anchors in %s.%s.anc.", PAL_Printable(handle.base).c_str(),
              PAL_Printable(component.dataFile->suffix).c_str());
}

// The last anchor with a time before `time`, or null. An anchor at `time` itself can't be used:
// records with that time may be before its offset.
const KLT_Anchor* anchorBefore(std::span<const KLT_Anchor> anchors, uint64_t time) {
  const auto next = std::lower_bound(anchors.begin(), anchors.end(), time,
                                     [](const KLT_Anchor& a, uint64_t t) { return a.time < t; });
  return next == anchors.begin() ? nullptr : &*(next - 1);
}

class Replay {
 public:
  Replay(KLT_Stream& stream, uint32_t categories) : s_(stream), categories_(categories) {}

  void run(const KLT_Anchor& anchor) {
    for (const auto& [suffix, bytes] : s_.history.replayedBytes) {
      s_.pass->replayedBytes[suffix] -= bytes;
    }
    s_.history.replayedBytes.clear();
    readGroup(anchor);
    replayEntries(anchor.offset);
  }

 private:
  // An entry of a `history` record.
  struct Entry {
    size_t file;  // index in `files_`
    uint64_t offset;
    uint64_t time;
  };

  // Adds the call stacks of the group to the context, and collects the entries of its history.
  void readGroup(const KLT_Anchor& anchor) {
    OpenInput group;
    if (!group.open(*s_.pass->handle, *s_.source.component->dataFile, true)) {
      reportUnopened(*s_.source.component->dataFile, true);
      return;
    }
    if (!group.input.seek(anchor.historyOffset)) {
      recordLoss(group.input);
      return;
    }
    const uint64_t end = anchor.historyOffset + anchor.historyBytes;
    group.input.setLimit(end);
    KLT_RecordBuffer record;
    while (group.input.position() < end) {
      const Read read = readRecord(*s_.pass->handle, group.input, record);
      if (read == Read::kEnd) {
        recordLoss(group.input);
        return;
      }
      if (read == Read::kCorrupt) {
        PAL_Error("Found corrupted data while unpacking %s.%s (rectype %i, offset %u).",
                  PAL_Printable(s_.pass->handle->base).c_str(),
                  PAL_Printable(s_.source.suffix()).c_str(), *group.input.at(),
                  static_cast<unsigned>(group.input.bufferPosition()));
        return;
      }
      const unsigned number = KLT_RecordNumber(record.data());
      if (number == KLT_Row::functionHistory) pushStack<KLT_Row::functionHistory>(record.data());
      if (number == KLT_Row::functionHistoryScl)
        pushStack<KLT_Row::functionHistoryScl>(record.data());
      if (number == KLT_Row::history && wantsEntries()) addEntries(record.data());
    }
  }

  [[nodiscard]] bool wantsEntries() const {
    return (categories_ & (klt::kScopes | klt::kCounters | klt::kMessages | klt::kCollops)) != 0;
  }

  void reportUnopened(const KLT_FileEntry& file, bool anchors) {
    KLT_ReportUnopened(KLT_ComponentName(*s_.pass->handle, file, anchors));
    s_.source.lostData = true;
  }

  template <int N>
  void pushStack(const uint8_t* record) {
    using View = KLT_Record<N>;
    if ((categories_ & klt::kFunctions) == 0) return;
    KLT_WillyState& state = s_.history.context.of(View::template get32<0>(record));
    const auto* functions = View::template array<uint32_t, 2>(record);
    for (uint32_t i = 0; i < View::template count<2>(record); ++i) {
      uint32_t scl = 0;
      if constexpr (N == KLT_Row::functionHistoryScl)
        scl = View::template array<uint32_t, 3>(record)[i];
      state.functions.push({functions[i], scl});
      ++state.depth;
    }
  }

  void addEntries(const uint8_t* record) {
    using View = KLT_Record<KLT_Row::history>;
    const uint32_t n = View::count<1>(record);
    const auto* files = View::array<uint32_t, 1>(record);
    const auto* offsets = View::array<uint64_t, 2>(record);
    const auto* times = View::array<uint64_t, 3>(record);
    for (uint32_t i = 0; i < n; ++i) {
      if (offsets[i] == ~uint64_t{0}) continue;
      const std::unique_ptr<KLT_FileEntry>* file = s_.pass->handle->files.find(files[i]);
      if (file == nullptr) {
        reportEntry(nullptr, 0, offsets[i]);
        continue;
      }
      const size_t index = fileIndex_.try_emplace((*file)->suffix, files_.size()).first->second;
      if (index == files_.size()) files_.push_back(file->get());
      entries_.push_back({index, offsets[i], times[i]});
    }
  }

  // Replays each record once and in the order of the file, as if a stream read it from the start.
  // Records of the stream's own file at or after the offset `resume` are read by the stream.
  void replayEntries(uint64_t resume) {
    std::stable_sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
      return std::pair(a.file, a.offset) < std::pair(b.file, b.offset);
    });
    const auto isSame = [](const Entry& a, const Entry& b) {
      return a.file == b.file && a.offset == b.offset;
    };
    entries_.erase(std::unique(entries_.begin(), entries_.end(), isSame), entries_.end());
    for (const Entry& entry : entries_) {
      const KLT_FileEntry& file = *files_[entry.file];
      if (!useFile(file)) {
        reportUnopened(file, false);
        return;
      }
      if (isReadable_ && !isOverused()) replayRecord(entry.offset, entry.time, resume);
    }
  }

  [[nodiscard]] bool isOwn(const KLT_FileEntry& file) const {
    return file.suffix == s_.source.file->suffix;
  }

  // Reports whether streams of other files have replayed too many bytes of `file_`. Each of these
  // streams has its own copies. So if the seek points of many streams refer to the same records,
  // these take many times the memory that they need once.
  [[nodiscard]] bool isOverused() {
    constexpr uint64_t kMostCopies = 8;
    constexpr uint64_t kSmall = 1 << 20;
    if (isOwn(*file_)) return false;
    if (s_.pass->replayedBytes[file_->suffix] <= kSmall + kMostCopies * data_.input.length()) {
      return false;
    }
    PAL_Error("Too many seek points, like those in %s.%s.anc, refer to %s.%s.",
              PAL_Printable(s_.pass->handle->base).c_str(),
              PAL_Printable(s_.source.suffix()).c_str(),
              PAL_Printable(s_.pass->handle->base).c_str(), PAL_Printable(file_->suffix).c_str());
    s_.source.lostData = true;
    isReadable_ = false;
    return true;
  }

  // Counts the bytes of a record of `file_`.
  void countRead(uint64_t bytes) {
    if (isOwn(*file_)) return;
    auto& shares = s_.history.replayedBytes;
    if (shares.empty() || shares.back().first != file_->suffix)
      shares.emplace_back(file_->suffix, 0);
    shares.back().second += bytes;
    s_.pass->replayedBytes[file_->suffix] += bytes;
  }

  // Opens `file` for reading entries, unless it is open or compressed. False if it can't be opened.
  bool useFile(const KLT_FileEntry& file) {
    if (file_ == &file) return true;
    file_ = &file;
    replayedTo_ = 0;
    isReadable_ = !isCompressed(file);
    if (!isReadable_) return true;
    constexpr size_t kReadAtOnce = 0x400;
    if (!data_.open(*s_.pass->handle, file, false)) return false;
    data_.input.setBlock(kReadAtOnce);
    return true;
  }

  // Marks the stream as incomplete if the input has failed, because the history is incomplete then.
  void recordLoss(const KLT_Input& input) {
    s_.source.lostData = s_.source.lostData || input.ended();
  }

  [[nodiscard]] bool isCompressed(const KLT_FileEntry& file) const {
    if (!s_.pass->handle->compressed(KLT_FileHandle::kCompressible)) return false;
    return std::any_of(s_.pass->handle->components.begin(), s_.pass->handle->components.end(),
                       [&](const auto& component) {
                         return component->dataFile != nullptr &&
                                component->dataFile->suffix == file.suffix &&
                                s_.pass->handle->compressed(component->categories);
                       });
  }

  void reportEntry(const KLT_FileEntry* file, unsigned number, uint64_t offset) const {
    KLT_ReportCorrupted(*s_.pass->handle, file == nullptr ? "" : file->suffix, number, offset);
  }

  void replayRecord(uint64_t offset, uint64_t time, uint64_t resume) {
    KLT_Input& input = data_.input;
    if (offset >= input.length()) {
      reportEntry(file_, 0, offset);
      return;
    }
    if (isOwn(*file_) && offset >= resume) return;  // the stream reads it
    if (!input.seek(offset) || !input.ensure(1)) {
      recordLoss(input);
      return;
    }
    const unsigned number = *input.at();
    const KLT_DecoderEntry& entry = s_.pass->handle->decoders->entries[number];
    input.advance(1);
    size_t disk = 0;
    record_.clear();
    // Records don't overlap. Entries for one large record would otherwise each yield one of its
    // size.
    if (entry.parse == nullptr || offset < replayedTo_) {
      reportEntry(file_, number, offset);
      return;
    }
    const KLT_Parse parsed = entry.parse(entry, input, record_, time, disk);
    if (parsed == KLT_Parse::kNoData) {
      recordLoss(input);
      return;
    }
    countRead(1 + disk);
    if (parsed != KLT_Parse::kRecord || !KLT_RowOf(KLT_RecordNumber(record_.data()))->replayed()) {
      reportEntry(file_, number, offset);
      return;
    }
    replayedTo_ = offset + 1 + disk;
    const KLT_Row& row = *KLT_RowOf(KLT_RecordNumber(record_.data()));
    if ((row.categories() & categories_) == 0) return;
    if (time >= s_.filter.start) return;  // not before this window
    if (KLT_ThreadsSelected(s_, record_.data())) KLT_UpdateContext(s_, record_.data());
  }

  KLT_Stream& s_;
  uint32_t categories_;
  std::vector<const KLT_FileEntry*> files_;          // in the order of their first use by an entry
  PAL_HashMap<std::string_view, size_t> fileIndex_;  // index in `files_`, by suffix
  std::vector<Entry> entries_;
  OpenInput data_;
  const KLT_FileEntry* file_ = nullptr;  // of `data_`
  bool isReadable_ = false;              // `file_` is open, and not compressed
  uint64_t replayedTo_ = 0;              // offset in `file_` after the last record
  KLT_RecordBuffer record_;
};

// Loads the anchors of a component's file, once. If they are damaged, all are ignored after a
// report.
void loadAnchors(KLT_FileHandle& handle, const KLT_Component& component) {
  KLT_AnchorTable& table = *component.anchors;
  if (std::exchange(table.isLoaded, true)) return;
  OpenInput file;
  if (!file.open(handle, *component.dataFile, true)) return;  // anchors are optional
  if (!readAnchors(handle, file.input, table.anchors)) ignoreAnchors(handle, component);
}

// The anchors that the stream can use.
std::span<const KLT_Anchor> usableAnchors(const KLT_Stream& s) {
  const KLT_Component& component = *s.source.component;
  if (component.anchors == nullptr) return {};
  loadAnchors(*s.pass->handle, component);
  const std::vector<KLT_Anchor>& anchors = component.anchors->anchors;
  if (s.input.compressed()) return {};
  if (!anchors.empty() && anchors.back().offset > s.input.length()) {
    ignoreAnchors(*s.pass->handle, component);
  }
  if (component.anchors->isIgnored) return {};
  return anchors;
}

}  // namespace

void KLT_LoadAnchors(KLT_Stream& s) { (void)usableAnchors(s); }

KLT_Extent KLT_ExtentOf(const KLT_Stream& s, const KLT_StreamRequest& request) {
  if (s.source.component == nullptr) return {};
  const std::span<const KLT_Anchor> anchors = usableAnchors(s);
  const KLT_Anchor* anchor = anchorBefore(anchors, request.start);
  const auto first = anchors.begin() + (anchor == nullptr ? 0 : anchor - anchors.data() + 1);
  const auto end = std::lower_bound(first, anchors.end(), request.end,
                                    [](const KLT_Anchor& a, uint64_t t) { return a.time < t; });
  const bool toTheEnd = end == anchors.end() || request.end == ~uint64_t{0};
  // A group without offsets may be by a program that stores no open scopes at seek points.
  const bool scopes = (KLT_StoredCategories(s, request.categories) & klt::kScopes) != 0;
  if (scopes && anchor != nullptr && !anchor->hasOffsetHistory) anchor = nullptr;
  return {anchor, toTheEnd ? KLT_Input::kNoLimit : end->offset};
}

void KLT_ReplayAnchor(KLT_Stream& stream, const KLT_Anchor& anchor, uint32_t categories) {
  if (categories != 0) Replay(stream, categories).run(anchor);
}
