#include "admin/audit/gzip.h"

#include <zlib.h>

#include <vector>

#include "admin/common/refusal.h"

namespace kova::admin {

namespace {

constexpr int kGzipWindow = 15 + 16;
constexpr std::size_t kOutputSize = 256 * std::size_t{1024};

}  // namespace

struct Gunzip::State {
  enum class Place { kBeforeFirst, kInMember, kBetween, kPadding, kWrong };

  z_stream stream{};
  std::vector<char> output = std::vector<char>(kOutputSize);
  Place place = Place::kBeforeFirst;
};

Gunzip::Gunzip() : state_(std::make_unique<State>()) {
  if (::inflateInit2(&state_->stream, kGzipWindow) != Z_OK) {
    throw Refusal("there is no memory to decompress with");
  }
}

Gunzip::~Gunzip() {
  ::inflateEnd(&state_->stream);
}

bool Gunzip::is_start(std::string_view bytes) {
  return bytes.starts_with("\x1F\x8B");
}

void Gunzip::add(std::string_view bytes, const std::function<void(std::string_view)>& take) {
  using Place = State::Place;
  State& state = *state_;
  z_stream& stream = state.stream;
  // The library takes its input without const and does not change it.
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  stream.avail_in = static_cast<uInt>(bytes.size());
  bool is_full = false;
  while ((stream.avail_in > 0 || is_full) && state.place != Place::kWrong) {
    if (state.place == Place::kBetween && *stream.next_in == 0) state.place = Place::kPadding;
    if (state.place == Place::kPadding) {
      if (*stream.next_in != 0) state.place = Place::kWrong;
      ++stream.next_in;
      --stream.avail_in;
      continue;
    }
    if (state.place == Place::kBetween) ::inflateReset(&stream);
    state.place = Place::kInMember;
    stream.next_out = reinterpret_cast<Bytef*>(state.output.data());
    stream.avail_out = static_cast<uInt>(kOutputSize);
    const int result = ::inflate(&stream, Z_NO_FLUSH);
    const std::size_t size = kOutputSize - stream.avail_out;
    is_full = stream.avail_out == 0 && result == Z_OK;
    if (size > 0) take({state.output.data(), size});
    if (result == Z_STREAM_END) {
      state.place = Place::kBetween;
    } else if (result != Z_OK && result != Z_BUF_ERROR) {
      state.place = Place::kWrong;
    }
  }
}

bool Gunzip::is_whole() const {
  return state_->place == State::Place::kBetween || state_->place == State::Place::kPadding;
}

}  // namespace kova::admin
