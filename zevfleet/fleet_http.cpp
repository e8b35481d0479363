#include "fleet_http.h"

#include <curl/curl.h>

#include <ctime>
#include <mutex>

#include "exit_status.h"

namespace zevfleet {

namespace {

constexpr long kConnectMilliseconds = 1000;
constexpr long kRequestMilliseconds = 2000;
constexpr size_t kMostBody = size_t{64} << 20;
constexpr size_t kMostLine = size_t{64} << 20;

// The answer of one request, as it comes in.
struct Inbox {
  std::string body;
  std::optional<int64_t> clock_ahead;
  bool is_stream = false;
  const std::function<bool(std::string_view)>* take = nullptr;
  const std::atomic<bool>* stop = nullptr;
  bool taken_enough = false;
};

bool TakeLines(Inbox& inbox) {
  size_t begin = 0;
  for (size_t end = 0; (end = inbox.body.find('\n', begin)) != std::string::npos; begin = end + 1) {
    if (!(*inbox.take)(std::string_view(inbox.body).substr(begin, end - begin))) {
      inbox.taken_enough = true;
      return false;
    }
  }
  inbox.body.erase(0, begin);
  return inbox.body.size() <= kMostLine;
}

// curl_easy_setopt(3), CURLOPT_WRITEFUNCTION: fewer bytes than given end the request.
size_t TakeBody(char* bytes, size_t size, size_t count, void* place) {
  auto& inbox = *static_cast<Inbox*>(place);
  if (inbox.body.size() + size * count > kMostBody) return 0;
  inbox.body.append(bytes, size * count);
  if (inbox.is_stream && !TakeLines(inbox)) return 0;
  return size * count;
}

size_t TakeHeader(char* bytes, size_t size, size_t count, void* place) {
  constexpr std::string_view kDate = "date: ";
  const std::string line(bytes, size * count);
  if (line.size() > kDate.size() && (line[0] == 'D' || line[0] == 'd') &&
      line.compare(1, kDate.size() - 1, kDate.substr(1)) == 0) {
    const time_t date = curl_getdate(line.c_str() + kDate.size(), nullptr);
    if (date != -1) static_cast<Inbox*>(place)->clock_ahead = int64_t{date} - time(nullptr);
  }
  return size * count;
}

int AskWhetherToStop(void* place, curl_off_t /*size*/, curl_off_t /*got*/, curl_off_t /*to_send*/,
                     curl_off_t /*sent*/) {
  const auto& inbox = *static_cast<const Inbox*>(place);
  return inbox.stop != nullptr && inbox.stop->load() ? 1 : 0;
}

void StartLibrary() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

struct HttpClient::Implementation {
  CURL* curl = nullptr;
  char reason[CURL_ERROR_SIZE] = "";
};

HttpClient::HttpClient(const TlsFiles& tls) : implementation_(std::make_unique<Implementation>()) {
  StartLibrary();
  CURL* curl = implementation_->curl = curl_easy_init();
  if (curl == nullptr) {
    throw zevctl::Failure(zevctl::ExitStatus::kFailed, "there is no memory for a connection");
  }
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, implementation_->reason);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_PROXY, "");
  curl_easy_setopt(curl, CURLOPT_TCP_NODELAY, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, kConnectMilliseconds);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, TakeBody);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, TakeHeader);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, AskWhetherToStop);
  if (!tls.ca.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, tls.ca.c_str());
  if (!tls.certificate.empty()) curl_easy_setopt(curl, CURLOPT_SSLCERT, tls.certificate.c_str());
  if (!tls.key.empty()) curl_easy_setopt(curl, CURLOPT_SSLKEY, tls.key.c_str());
}

HttpClient::~HttpClient() {
  curl_easy_cleanup(implementation_->curl);
}

namespace {

// The headers of one request.
class Headers {
 public:
  explicit Headers(const std::string& token) {
    Add("Content-Type: application/json");
    Add("Expect:");
    if (!token.empty()) Add("Authorization: " + token);
  }
  ~Headers() { curl_slist_free_all(list_); }
  Headers(const Headers&) = delete;
  Headers& operator=(const Headers&) = delete;

  curl_slist* get() const { return list_; }

 private:
  void Add(const std::string& line) { list_ = curl_slist_append(list_, line.c_str()); }

  curl_slist* list_ = nullptr;
};

CURLcode Perform(CURL* curl, const std::string& url, const std::string& body,
                 const std::string& token, Inbox& inbox) {
  const Headers headers(token);
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &inbox);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &inbox);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &inbox);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, inbox.is_stream ? 0L : 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, inbox.is_stream ? 0L : kRequestMilliseconds);
  return curl_easy_perform(curl);
}

}  // namespace

HttpAnswer HttpClient::Post(const std::string& url, const std::string& body,
                            const std::string& token) {
  Inbox inbox;
  const CURLcode code = Perform(implementation_->curl, url, body, token, inbox);
  HttpAnswer answer{"", std::move(inbox.body), inbox.clock_ahead};
  if (code != CURLE_OK) {
    const char* reason = implementation_->reason;
    answer.error = *reason != '\0' ? reason : curl_easy_strerror(code);
  }
  return answer;
}

std::string HttpClient::Stream(const std::string& url, const std::string& body,
                               const std::string& token,
                               const std::function<bool(std::string_view)>& take,
                               const std::atomic<bool>& stop) {
  Inbox inbox;
  inbox.is_stream = true;
  inbox.take = &take;
  inbox.stop = &stop;
  const CURLcode code = Perform(implementation_->curl, url, body, token, inbox);
  if (inbox.taken_enough || code == CURLE_ABORTED_BY_CALLBACK) return {};
  if (code == CURLE_OK) return "the server has ended the stream";
  const char* reason = implementation_->reason;
  return *reason != '\0' ? reason : curl_easy_strerror(code);
}

}  // namespace zevfleet
