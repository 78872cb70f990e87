#include "server/ControlServer.h"

#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <list>
#include <stdexcept>
#include <string>

#include "Common Sources/Caps.h"
#include "server/ControlApi.h"
#include "server/ControlSocket.h"
#include "server/Household.h"
#include "server/Metrics.h"

namespace vardell::server {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::local::stream_protocol;
using boost::system::error_code;

constexpr std::chrono::seconds kAcceptPause{1};
constexpr std::size_t kBufferBytes = kMaxControlHeaderBytes + (16u << 10);

QByteArray Bytes(beast::string_view text) {
  return QByteArray(text.data(), static_cast<qsizetype>(text.size()));
}

std::optional<QByteArray> HeaderOf(const http::request<http::string_body>& message,
                                   http::field name) {
  const auto found = message.find(name);
  if (found == message.end()) return std::nullopt;
  return Bytes(found->value());
}

ControlRequest RequestFrom(const http::request<http::string_body>& message) {
  ControlRequest request;
  request.method = Bytes(message.method_string());
  request.target = Bytes(message.target());
  request.ifMatch = HeaderOf(message, http::field::if_match);
  request.ifNoneMatch = HeaderOf(message, http::field::if_none_match);
  request.body = QByteArray::fromStdString(message.body());
  return request;
}

http::response<http::string_body> ResponseFrom(const ControlAnswer& answer, unsigned version,
                                               bool keepAlive) {
  http::response<http::string_body> response;
  response.version(version);
  response.result(static_cast<unsigned>(answer.status));
  response.set(http::field::content_type, answer.contentType.toStdString());
  response.set(http::field::cache_control, "no-store");
  if (!answer.etag.isEmpty()) response.set(http::field::etag, answer.etag.toStdString());
  if (!answer.allow.isEmpty()) response.set(http::field::allow, answer.allow.toStdString());
  response.keep_alive(keepAlive);
  response.body() = answer.body.toStdString();
  response.prepare_payload();
  return response;
}

std::optional<ucred> PeerOf(stream_protocol::socket& socket) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
    return std::nullopt;
  return peer;
}

// One client: its requests are read, answered and written one after the other.
struct Session {
  Session(stream_protocol::socket socket, Requester who)
      : stream(std::move(socket)), requester(std::move(who)) {}

  beast::basic_stream<stream_protocol> stream;
  const Requester requester;
  beast::flat_buffer buffer{kBufferBytes};
  std::optional<http::request_parser<http::string_body>> parser;
  http::response<http::string_body> response;
  std::unique_ptr<ControlTask> task;  // the answer that is under way
};

}  // namespace

struct ControlServer::Impl : std::enable_shared_from_this<Impl> {
  using SessionPtr = std::shared_ptr<Session>;  // held by the list and by the pending handler

  Impl(asio::io_context& context, Household& house, Options given)
      : household(house),
        options(std::move(given)),
        file(options.path),
        acceptor(context),
        pause(context) {}

  void Listen();
  void Accept();
  void AcceptAgainLater();
  void Admit(stream_protocol::socket socket);
  bool HasRoomFor(uid_t uid) const;
  void ReadHeader(const SessionPtr& session);
  void ReadBody(const SessionPtr& session);
  std::size_t MaxBodyOf(const SessionPtr& session) const;
  void Answer(const SessionPtr& session);
  void Prepare(const SessionPtr& session);
  void StepOn(const SessionPtr& session);
  void RefuseFraming(const SessionPtr& session, const error_code& error);
  void Write(const SessionPtr& session, const ControlAnswer& answer, bool keepAlive);
  void Drop(const SessionPtr& session);
  void Stop();

  Household& household;
  Options options;
  ControlSocket file;
  stream_protocol::acceptor acceptor;
  asio::steady_timer pause;
  asio::thread_pool preparations{1};
  std::list<SessionPtr> sessions;
  bool stopped = false;
};

void ControlServer::Impl::Listen() {
  error_code error;
  acceptor.assign(stream_protocol(), file.Release(), error);
  if (!error) acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error) {
    throw std::runtime_error("cannot listen on the control socket " + options.path.toStdString() +
                             ": " + error.message());
  }
}

void ControlServer::Impl::Accept() {
  acceptor.async_accept(
      [self = shared_from_this()](const error_code& error, stream_protocol::socket socket) {
        if (self->stopped) return;
        if (error) return self->AcceptAgainLater();
        self->Admit(std::move(socket));
        self->Accept();
      });
}

// Out of descriptors, mostly: trying at once would spin.
void ControlServer::Impl::AcceptAgainLater() {
  pause.expires_after(kAcceptPause);
  pause.async_wait([self = shared_from_this()](const error_code&) {
    if (!self->stopped) self->Accept();
  });
}

void ControlServer::Impl::Admit(stream_protocol::socket socket) {
  const std::optional<ucred> peer = PeerOf(socket);
  if (!peer || !HasRoomFor(peer->uid)) return;
  sessions.push_back(
      std::make_shared<Session>(std::move(socket), options.whoIs(peer->uid, peer->gid)));
  ReadHeader(sessions.back());
}

// Root always finds room for its share, whatever the others hold.
bool ControlServer::Impl::HasRoomFor(uid_t uid) const {
  const auto count = [this](auto counts) {
    return static_cast<std::size_t>(std::count_if(
        sessions.begin(), sessions.end(),
        [&](const SessionPtr& session) { return counts(session->requester.actor.uid); }));
  };
  if (count([uid](uid_t other) { return other == uid; }) >= kMaxControlConnectionsOfUser)
    return false;
  return uid == 0 || count([](uid_t other) { return other != 0; }) < kMaxControlConnections;
}

// The limits of time hold for a whole step: a client that sends byte by byte gains nothing.
void ControlServer::Impl::ReadHeader(const SessionPtr& session) {
  session->parser.emplace();
  session->parser->header_limit(kMaxControlHeaderBytes);
  session->parser->body_limit(kMaxBackupBytes);  // that of the request comes with its header
  session->stream.expires_after(options.idleLimit);
  http::async_read_header(
      session->stream, session->buffer, *session->parser,
      [self = shared_from_this(), session](const error_code& error, std::size_t) {
        if (self->stopped) return;
        if (error) return self->RefuseFraming(session, error);
        self->ReadBody(session);
      });
}

void ControlServer::Impl::ReadBody(const SessionPtr& session) {
  const std::size_t most = MaxBodyOf(session);
  if (session->parser->content_length().value_or(0) > most) {
    return Write(session, RefuseBody(most), false);
  }
  session->parser->body_limit(most);
  session->stream.expires_after(options.requestLimit);
  http::async_read(session->stream, session->buffer, *session->parser,
                   [self = shared_from_this(), session](const error_code& error, std::size_t) {
                     if (self->stopped) return;
                     if (error) return self->RefuseFraming(session, error);
                     self->Answer(session);
                   });
}

std::size_t ControlServer::Impl::MaxBodyOf(const SessionPtr& session) const {
  const http::request<http::string_body>& message = session->parser->get();
  return MaxBodyBytes(session->requester, Bytes(message.method_string()), Bytes(message.target()));
}

void ControlServer::Impl::Answer(const SessionPtr& session) {
  const http::request<http::string_body>& message = session->parser->get();
  ControlOutcome outcome = AnswerControlRequest({household, options.status, options.metrics},
                                                session->requester, RequestFrom(message));
  if (const auto* answer = std::get_if<ControlAnswer>(&outcome)) {
    return Write(session, *answer, message.keep_alive());
  }
  session->task = std::move(std::get<std::unique_ptr<ControlTask>>(outcome));
  Prepare(session);
}

// One after the other, so that several do not take the memory of several at once.
void ControlServer::Impl::Prepare(const SessionPtr& session) {
  asio::post(preparations, [self = shared_from_this(), session] {
    session->task->Prepare();
    asio::post(self->acceptor.get_executor(), [self, session] { self->StepOn(session); });
  });
}

// What else is ready has its turn between two steps.
void ControlServer::Impl::StepOn(const SessionPtr& session) {
  if (stopped) return;
  const std::optional<ControlAnswer> answer = session->task->Step();
  if (!answer) {
    return asio::post(acceptor.get_executor(),
                      [self = shared_from_this(), session] { self->StepOn(session); });
  }
  session->task.reset();
  Write(session, *answer, session->parser->get().keep_alive());
}

void ControlServer::Impl::RefuseFraming(const SessionPtr& session, const error_code& error) {
  if (error == http::error::header_limit || error == http::error::buffer_overflow)
    return Write(session, RefuseHeader(), false);
  if (error == http::error::body_limit)
    return Write(session, RefuseBody(MaxBodyOf(session)), false);
  const bool isSyntax = error.category() == make_error_code(http::error::bad_method).category();
  if (isSyntax && error != http::error::end_of_stream && error != http::error::partial_message)
    return Write(session, RefuseMalformed(), false);
  Drop(session);
}

void ControlServer::Impl::Write(const SessionPtr& session, const ControlAnswer& answer,
                                bool keepAlive) {
  if (options.metrics) options.metrics->CountAnswer(answer.status);
  session->response = ResponseFrom(answer, 11, keepAlive);
  session->stream.expires_after(options.requestLimit);
  http::async_write(session->stream, session->response,
                    [self = shared_from_this(), session](const error_code& error, std::size_t) {
                      if (self->stopped) return;
                      if (error || session->response.need_eof()) return self->Drop(session);
                      self->ReadHeader(session);
                    });
}

void ControlServer::Impl::Drop(const SessionPtr& session) {
  const SessionPtr kept = session;  // the argument may be the list's own element
  kept->stream.close();
  sessions.remove(kept);
}

void ControlServer::Impl::Stop() {
  stopped = true;
  error_code ignored;
  acceptor.close(ignored);
  pause.cancel();
  preparations.join();
  for (const SessionPtr& session : sessions) {
    session->stream.close();
    session->task.reset();
  }
  sessions.clear();
  file.Remove();
}

ControlServer::ControlServer(asio::io_context& network, Household& household, Options options) {
  if (!options.whoIs)
    options.whoIs = [](uid_t uid, gid_t gid) { return LookUpRequester(uid, gid); };
  impl_ = std::make_shared<Impl>(network, household, std::move(options));
  impl_->Listen();
  impl_->Accept();
}

ControlServer::~ControlServer() {
  impl_->Stop();
}

}  // namespace vardell::server
