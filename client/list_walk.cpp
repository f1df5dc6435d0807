#include "client/list_walk.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <utility>

#include "common/bus_records.h"
#include "platform/apartment.h"

namespace qx {
namespace {

using platform::BusError;
using platform::ERROR_SUCCESS;
using platform::ErrorCode;
using platform::MessageReader;
using platform::MessageWriter;

// The rows of the first page, which tells how dense the IDs lie.
constexpr std::uint32_t kFirstRows = 128;
// A page of the service; a list that seems to be shorter is read from front to end.
constexpr double kPageRows = 1000;
constexpr std::uint64_t kParts = 4;
constexpr std::uint64_t kPlaces = std::uint64_t{1} << 32;
// Room is made for so many rows of a part at most, however many are expected.
constexpr double kMostRoom = 1 << 17;

// IDs of a list come in upper case or lower; their order knows no case.
bool IsBehind(std::string_view id, std::string_view other) {
  return std::lexicographical_compare(other.begin(), other.end(), id.begin(), id.end(), [](char a, char b) {
    const auto upper = [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; };
    return upper(a) < upper(b);
  });
}

// The first eight digits of an ID, 0 where there are none: IDs are spread evenly over them.
double PlaceOf(std::string_view id) {
  constexpr std::size_t kDigits = 8;
  std::uint32_t place = 0;
  if (id.size() > kDigits) (void)std::from_chars(id.data() + 1, id.data() + 1 + kDigits, place, 16);
  return place;
}

// The last ID ahead of a place.
std::string IdAheadOf(std::uint64_t place) {
  std::array<char, 9> digits{};
  std::snprintf(digits.data(), digits.size(), "%08X", static_cast<unsigned>(place - 1));
  return "{" + std::string(digits.data()) + "-FFFF-FFFF-FFFF-FFFFFFFFFFFF}";
}

BusError BadReply(std::string_view what) {
  return BusError::InvalidArgs("the service's answer has no " + std::string(what));
}

}  // namespace

// The schedules of one range of IDs.
struct ListWalk::Part {
  std::string after;  // the last ID that came
  std::string upTo;   // the last one that may belong to it; empty: no bound
  double begin = 0;   // the places of its range
  double end = static_cast<double>(kPlaces);
  double density = 0;  // schedules a place, as far as is known; 0: it isn't
  bool isEven = true;  // the IDs lie as evenly as was expected so far
  std::vector<SentListRow> rows;
  std::vector<std::shared_ptr<const void>> texts;
  bool isAsked = false;     // an answer is to come
  std::uint32_t limit = 0;  // of the page that was asked for
  bool isOver = false;
  MessageReader reply;
  BusError error;

  // How many rows are to come.
  [[nodiscard]] double Expected() const { return density * std::max(end - PlaceOf(after), 0.0); }
  // The same, as good as never less than come where IDs lie evenly.
  [[nodiscard]] double Most() const {
    const double expected = Expected();
    return expected + 3 * std::sqrt(expected) + 8;
  }
  // Of a page that hardly reaches into the next part.
  [[nodiscard]] std::uint32_t Limit() const {
    if (after.empty()) return kFirstRows;
    const double most = Most();
    return !isEven || density <= 0 || most >= kPageRows ? 0 : static_cast<std::uint32_t>(most);
  }
  void MakeRoom() { rows.reserve(rows.size() + static_cast<std::size_t>(std::min(Most(), kMostRoom))); }
};

// Gives the places behind the first page to several parts.
void ListWalk::Cut(const std::shared_ptr<Part>& first) {
  const bool isLong = first->rows.size() >= kFirstRows && first->Expected() >= 2 * kPageRows;
  if (!m_link.severalAtOnce || first->isOver || !isLong) return;
  for (std::uint64_t i = 1; i < kParts; ++i) {
    const std::uint64_t place = kPlaces / kParts * i;
    if (static_cast<double>(place) <= PlaceOf(first->after)) continue;
    const auto part = std::make_shared<Part>();
    part->begin = static_cast<double>(place);
    part->density = first->density;
    part->after = IdAheadOf(place);
    m_parts.back()->end = part->begin;
    m_parts.back()->upTo = part->after;
    m_parts.push_back(part);
  }
  for (const auto& part : m_parts) part->MakeRoom();
}

Status ListWalk::AskFor(const std::shared_ptr<Part>& part) {
  MessageWriter call;
  part->limit = part->Limit();
  if (const Status status = m_link.begin(part->after, part->limit, call); status != kStatusOk) return status;
  if (!m_link.severalAtOnce) {
    const ErrorCode rc = m_link.connection.Call(std::move(call), part->reply, part->error, platform::kNoCallLimit);
    return rc == ERROR_SUCCESS ? kStatusOk : m_link.fail(rc, std::exchange(part->error, {}));
  }
  const auto answered = [part](MessageReader& reply, const BusError& error) {
    part->reply = std::move(reply);
    part->error = error;
    part->isAsked = false;
  };
  part->isAsked = true;
  const ErrorCode rc = m_link.connection.CallAsync(std::move(call), answered, platform::kNoCallLimit);
  return rc == ERROR_SUCCESS ? kStatusOk : m_link.fail(rc, BusError::Failed("the call could not be sent"));
}

// Takes the page that came over into the rows.
Status ListWalk::Take(Part& part) {
  if (part.error.IsSet()) {
    const bool lost = part.error.name == platform::kBusErrorDisconnected;
    return m_link.fail(lost ? platform::ERROR_NOT_CONNECTED : platform::ERROR_REQUEST_REFUSED, std::move(part.error));
  }
  std::int32_t status = 0;
  if (part.reply.ReadInt32(status) != ERROR_SUCCESS) {
    return m_link.fail(platform::ERROR_INVALID_DATA, BadReply("status"));
  }
  if (status != 0) return static_cast<Status>(status);
  std::vector<SentListRow>& rows = part.rows;
  const std::size_t before = rows.size();
  if (BusError error = ReadListRows(part.reply, rows); error.IsSet()) {
    return m_link.fail(platform::ERROR_INVALID_DATA, std::move(error));
  }
  part.texts.push_back(std::make_shared<MessageReader>(std::move(part.reply)));
  const bool isFull = rows.size() - before == part.limit;
  if (isFull && part.limit != 0 && !part.after.empty()) part.isEven = false;  // many more than were expected
  // A page that begins again would never end.
  part.isOver = rows.size() == before || !IsBehind(rows.back().id, part.after);
  if (!part.isOver) {
    part.after = rows.back().id;
    const double passed = PlaceOf(part.after) - part.begin;
    part.density = passed <= 0 ? 0 : static_cast<double>(rows.size()) / passed;
  }
  while (!part.upTo.empty() && rows.size() > before && IsBehind(rows.back().id, part.upTo)) {
    rows.pop_back();
    part.isOver = true;
  }
  return kStatusOk;
}

Status ListWalk::Run(SentListRows& list) {
  const auto first = std::make_shared<Part>();
  m_parts = {first};
  Status status = AskFor(first);
  bool isCut = false;
  for (std::size_t turn = 0; status == kStatusOk; ++turn) {
    const auto isOver = [](const auto& part) { return part->isOver; };
    if (std::all_of(m_parts.begin(), m_parts.end(), isOver)) break;
    const std::shared_ptr<Part> part = m_parts[turn % m_parts.size()];
    if (part->isOver) continue;
    while (part->isAsked) {
      const bool more = m_link.connection.Process();
      if (!more && part->isAsked) (void)m_link.connection.WaitForWork(platform::Apartment::kForever);
    }
    status = Take(*part);
    if (status == kStatusOk && !std::exchange(isCut, true)) {
      Cut(first);
      for (std::size_t i = 1; i < m_parts.size() && status == kStatusOk; ++i) status = AskFor(m_parts[i]);
    }
    if (status == kStatusOk && !part->isOver) status = AskFor(part);
  }
  if (status != kStatusOk) return status;
  for (const auto& part : m_parts) {
    list.blocks.push_back(std::move(part->rows));
    std::move(part->texts.begin(), part->texts.end(), std::back_inserter(list.texts));
  }
  return kStatusOk;
}

}  // namespace qx
