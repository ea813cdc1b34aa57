#include "HttpRequestReader.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "HttpText.h"

namespace {

constexpr std::size_t kMaxChunkLine = 1024;

std::string Lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

std::string_view WithoutCR(std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

bool IsToken(std::string_view text) {
  constexpr std::string_view kSymbols = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::all_of(text.begin(), text.end(), [&](unsigned char c) {
    return std::isalnum(c) || kSymbols.find(static_cast<char>(c)) != std::string_view::npos;
  });
}

bool HasToken(const std::string* list, std::string_view token) {
  if (!list) return false;
  const std::string lower = Lower(*list);
  std::string_view rest = lower;
  while (!rest.empty()) {
    const auto comma = rest.find(',');
    if (Trim(rest.substr(0, comma)) == token) return true;
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
  }
  return false;
}

template <typename Number>
bool ParseWhole(std::string_view text, Number& value, int base = 10) {
  const auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return !text.empty() && status == std::errc() && end == text.data() + text.size();
}

// The path of a request target: origin form ("/p?q") or absolute form ("http://h/p?q").
std::string_view TargetPath(std::string_view target) {
  if (const auto scheme = target.find("://"); target.front() != '/' && scheme != target.npos) {
    const auto slash = target.find('/', scheme + 3);
    target = slash == target.npos ? "/" : target.substr(slash);
  }
  return target.substr(0, target.find_first_of("?#"));
}

}  // namespace

HttpRequestReader::Step HttpRequestReader::read(std::string& input) {
  switch (state_) {
    case State::Head:
      return readHead(input);
    case State::Body:
      if (!takeBody(input)) return Step::More;
      state_ = State::Done;
      return Step::Done;
    case State::Done:
      return Step::Done;
    case State::Failed:
      return Step::Failed;
    default:
      return readChunks(input);
  }
}

HttpRequestReader::Step HttpRequestReader::readHead(std::string& input) {
  // Blank lines before a request line are passed over.
  const auto first = input.find_first_not_of("\r\n");
  if (first != 0) {
    input.erase(0, first == std::string::npos ? input.size() : first);
    scanned_ = 0;
  }
  const auto crlf = input.find("\n\r\n", scanned_), lf = input.find("\n\n", scanned_);
  const std::size_t end =
      std::min(crlf == std::string::npos ? crlf : crlf + 3, lf == std::string::npos ? lf : lf + 2);
  if (end == std::string::npos) {
    if (input.size() > maxHead_) {
      return fail(431, "the request head is over " + std::to_string(maxHead_) + " bytes");
    }
    scanned_ = input.size() < 2 ? 0 : input.size() - 2;
    return Step::More;
  }
  if (end > maxHead_) {
    return fail(431, "the request head is over " + std::to_string(maxHead_) + " bytes");
  }
  scanned_ = 0;
  const std::string head = input.substr(0, end);
  input.erase(0, end);
  return parseHead(head);
}

HttpRequestReader::Step HttpRequestReader::parseHead(std::string_view head) {
  auto nextLine = [&head] {
    const auto newline = head.find('\n');
    const std::string_view line = WithoutCR(head.substr(0, newline));
    head.remove_prefix(newline == head.npos ? head.size() : newline + 1);
    return line;
  };
  const std::string_view line = nextLine();
  const auto space = line.find(' '), lastSpace = line.rfind(' ');
  if (space == line.npos || lastSpace == space) return fail(400, "a malformed request line");
  request_.method = line.substr(0, space);
  request_.target = line.substr(space + 1, lastSpace - space - 1);
  const std::string_view version = line.substr(lastSpace + 1);
  if (!IsToken(request_.method) || request_.target.empty() ||
      request_.target.find(' ') != std::string::npos) {
    return fail(400, "a malformed request line");
  }
  if (version == "HTTP/1.0" || version == "HTTP/1.1") {
    request_.minorVersion = version.back() - '0';
  } else {
    return version.starts_with("HTTP/") ? fail(505, "only HTTP/1.0 and HTTP/1.1 are spoken here")
                                        : fail(400, "a malformed request line");
  }
  request_.path = PercentDecode(TargetPath(request_.target)).value_or("");

  for (std::string_view header = nextLine(); !header.empty(); header = nextLine()) {
    const auto colon = header.find(':');
    // A line that starts with a blank continues the previous one, a form that lets a proxy
    // and this server disagree on the headers: refused.
    if (colon == header.npos || !IsToken(header.substr(0, colon))) {
      return fail(400, "a malformed header line");
    }
    request_.headers.push_back(
        {Lower(header.substr(0, colon)), std::string(Trim(header.substr(colon + 1)))});
  }
  expectsContinue_ = HasToken(request_.header("expect"), "100-continue");

  // Framing: both headers, or lengths that disagree, could make a proxy in front read the
  // body otherwise than this server does.
  const std::string* length = nullptr;
  for (const auto& header : request_.headers) {
    if (header.name != "content-length") continue;
    if (length && *length != header.value) return fail(400, "Content-Length values disagree");
    length = &header.value;
  }
  if (const std::string* coding = request_.header("transfer-encoding")) {
    if (length) return fail(400, "both Content-Length and Transfer-Encoding");
    if (Lower(*coding) != "chunked") return fail(501, "a transfer coding other than chunked");
    state_ = State::ChunkSize;
    return Step::HeadRead;
  }
  uint64_t declared = 0;
  if (length && !ParseWhole(*length, declared)) return fail(400, "a malformed Content-Length");
  if (declared > maxBody_) {
    return fail(413, "a body of " + std::to_string(declared) + " bytes is over the limit of " +
                         std::to_string(maxBody_) + " bytes");
  }
  if (declared == 0) {
    state_ = State::Done;
    return Step::Done;
  }
  // Grown as the bytes come, so a client that only declares a body holds little.
  request_.body.reserve(std::min<uint64_t>(declared, 64 * 1024));
  bodyLeft_ = declared;
  state_ = State::Body;
  return Step::HeadRead;
}

HttpRequestReader::Step HttpRequestReader::readChunks(std::string& input) {
  for (;;) {
    if (state_ == State::ChunkData) {
      if (!takeBody(input)) return Step::More;
      state_ = State::ChunkEnd;
    }
    if (state_ == State::ChunkEnd) {
      const std::size_t end = input.starts_with("\r\n") ? 2 : input.starts_with("\n") ? 1 : 0;
      if (end == 0) return input.size() < 2 ? Step::More : fail(400, "a malformed chunk");
      input.erase(0, end);
      state_ = State::ChunkSize;
    }
    const auto newline = input.find('\n');
    if (newline == std::string::npos) {
      const std::size_t held = input.size() + (state_ == State::Trailers ? trailerBytes_ : 0);
      if (held > (state_ == State::Trailers ? maxHead_ : kMaxChunkLine)) {
        return fail(400, "a malformed chunk");
      }
      return Step::More;
    }
    const std::string line(WithoutCR(std::string_view(input).substr(0, newline)));
    input.erase(0, newline + 1);
    if (state_ == State::Trailers) {
      // Trailer fields are read past and dropped: nothing here needs them.
      trailerBytes_ += newline + 1;
      if (line.empty()) {
        state_ = State::Done;
        return Step::Done;
      }
      if (trailerBytes_ > maxHead_) return fail(400, "a malformed chunk");
      continue;
    }
    uint64_t size = 0;
    if (!ParseWhole(Trim(std::string_view(line).substr(0, line.find(';'))), size, 16)) {
      return fail(400, "a malformed chunk");
    }
    if (size > maxBody_ - request_.body.size()) {
      return fail(413, "the body grew past the limit of " + std::to_string(maxBody_) + " bytes");
    }
    bodyLeft_ = size;
    state_ = size == 0 ? State::Trailers : State::ChunkData;
  }
}

bool HttpRequestReader::takeBody(std::string& input) {
  const std::size_t take = static_cast<std::size_t>(std::min<uint64_t>(bodyLeft_, input.size()));
  request_.body.append(input, 0, take);
  input.erase(0, take);
  bodyLeft_ -= take;
  return bodyLeft_ == 0;
}

HttpRequestReader::Step HttpRequestReader::fail(int status, std::string message) {
  state_ = State::Failed;
  failureStatus_ = status;
  failureMessage_ = std::move(message);
  return Step::Failed;
}

HttpResponse HttpRequestReader::failure() const {
  HttpResponse response = HttpResponse::error(failureStatus_, failureMessage_);
  response.close = true;
  return response;
}

bool HttpRequestReader::keepAlive() const {
  const std::string* connection = request_.header("connection");
  if (HasToken(connection, "close")) return false;
  return request_.minorVersion >= 1 || HasToken(connection, "keep-alive");
}

void HttpRequestReader::reset() {
  request_ = HttpRequest();
  state_ = State::Head;
  scanned_ = 0;
  bodyLeft_ = 0;
  trailerBytes_ = 0;
  expectsContinue_ = false;
}
