#include "QKHttpServer.h"

#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

namespace {

struct SessionBase
{
    virtual ~SessionBase() = default;
    // Called on the session's strand when the server drains: a connection that waits
    // for its next request is closed; one in the middle of a request finishes it.
    virtual void closeIfIdle() = 0;
};

} // namespace

struct QKHttpServer::Private
{
    QKHttpServerOptions options;
    Handler handler;
    Logger logger;

    std::mutex registryMutex;
    std::condition_variable registryEmpty;
    std::list<std::weak_ptr<SessionBase>> sessions;

    std::mutex budgetMutex;
    qint64 budgetUsed = 0;

    std::atomic<bool> draining{false};
    std::atomic<bool> stopped{false};
    std::mutex stopMutex;

    std::optional<ssl::context> tls;
    net::io_context ioc;
    std::optional<tcp::acceptor> acceptor;
    std::optional<net::steady_timer> acceptRetry;
    std::vector<std::thread> threads;
    quint16 boundPort = 0;

    std::list<std::weak_ptr<SessionBase>>::iterator enrol(const std::shared_ptr<SessionBase> &session)
    {
        std::lock_guard lock(registryMutex);
        return sessions.insert(sessions.end(), session);
    }
    void leave(std::list<std::weak_ptr<SessionBase>>::iterator it)
    {
        std::lock_guard lock(registryMutex);
        sessions.erase(it);
        if (sessions.empty())
            registryEmpty.notify_all();
    }
    size_t sessionCount()
    {
        std::lock_guard lock(registryMutex);
        return sessions.size();
    }

    bool reserve(qint64 bytes)
    {
        std::lock_guard lock(budgetMutex);
        if (bytes > 0 && budgetUsed + bytes > options.bodyBudgetBytes)
            return false;
        budgetUsed += bytes;
        return true;
    }
    void unreserve(qint64 bytes)
    {
        std::lock_guard lock(budgetMutex);
        budgetUsed -= bytes;
    }

    void doAccept();
    void onAccept(beast::error_code ec, tcp::socket socket);
};

namespace {

// An answer's status and headers, for a whole body or a stream.
template <class Body>
std::shared_ptr<http::response<Body>> head(const QKServiceResponse &response)
{
    auto message = std::make_shared<http::response<Body>>(http::int_to_status(unsigned(response.status)), 11);
    message->set(http::field::content_type,
                 beast::string_view(response.contentType.constData(), size_t(response.contentType.size())));
    message->set("X-Content-Type-Options", "nosniff");
    for (const auto &h : std::as_const(response.headers))
        message->set(beast::string_view(h.first.constData(), size_t(h.first.size())),
                     beast::string_view(h.second.constData(), size_t(h.second.size())));
    return message;
}

template <class Derived>
class Session : public SessionBase
{
public:
    explicit Session(QKHttpServer::Private *server) : server(server) {}
    ~Session() override
    {
        if (reserved)
            server->unreserve(reserved);
        if (enrolled)
            server->leave(registration);
    }

    void enrol(const std::shared_ptr<SessionBase> &self)
    {
        registration = server->enrol(self);
        enrolled = true;
    }

    void closeIfIdle() override
    {
        if (!busy)
            derived().lowest().socket().close();
    }

protected:
    Derived &derived() { return static_cast<Derived &>(*this); }
    const QKHttpServerOptions &options() const { return server->options; }

    void doRead()
    {
        busy = false;
        if (server->draining) {
            derived().closeStream();
            return;
        }
        parser.emplace();
        parser->header_limit(std::uint32_t(options().maxHeaderBytes));
        parser->body_limit(std::uint64_t(options().maxBodyBytes));
        derived().lowest().expires_after(milliseconds(options().headerTimeoutMs));
        http::async_read_header(derived().stream(), buffer, *parser,
                                beast::bind_front_handler(&Session::onHeader, derived().shared_from_this()));
    }

private:
    void onHeader(beast::error_code ec, std::size_t)
    {
        if (ec == http::error::header_limit)
            return refuse(QKServiceRefusal::HeadersTooLarge);
        if (ec == http::error::body_limit) // its Content-Length says so
            return refuse(QKServiceRefusal::BodyTooLarge);
        if (ec) {
            // A request that is not HTTP gets an answer; a peer that went away or was
            // too slow gets none.
            const bool malformed = ec.category() == http::make_error_code(http::error::bad_method).category() &&
                                   ec != http::error::end_of_stream && ec != http::error::partial_message;
            return malformed ? refuse(QKServiceRefusal::UnreadableBody) : derived().closeStream();
        }
        busy = true;
        started = Clock::now();
        const auto length = parser->content_length();
        if (length && *length > std::uint64_t(options().maxBodyBytes))
            return refuse(QKServiceRefusal::BodyTooLarge);
        const qint64 wanted = length ? qint64(*length) : (parser->chunked() ? options().maxBodyBytes : 0);
        if (!server->reserve(wanted))
            return refuse(QKServiceRefusal::Busy);
        reserved = wanted;
        if (parser->is_done())
            return onBody({}, 0);
        derived().lowest().expires_after(milliseconds(options().bodyTimeoutMs));
        if (beast::iequals(parser->get()[http::field::expect], "100-continue")) {
            auto interim = std::make_shared<http::response<http::empty_body>>(http::status::continue_, 11);
            http::async_write(derived().stream(), *interim,
                              [self = derived().shared_from_this(), interim](beast::error_code ec, std::size_t) {
                                  if (ec)
                                      return self->closeStream();
                                  http::async_read(self->stream(), self->buffer, *self->parser,
                                                   beast::bind_front_handler(&Session::onBody, self));
                              });
            return;
        }
        http::async_read(derived().stream(), buffer, *parser,
                         beast::bind_front_handler(&Session::onBody, derived().shared_from_this()));
    }

    void onBody(beast::error_code ec, std::size_t)
    {
        if (ec == http::error::body_limit)
            return refuse(QKServiceRefusal::BodyTooLarge);
        if (ec)
            return derived().closeStream();
        auto &message = parser->get();
        QKServiceRequest request;
        request.method = QByteArray(message.method_string().data(), qsizetype(message.method_string().size()));
        request.target = QByteArray(message.target().data(), qsizetype(message.target().size()));
        for (const auto &field : message)
            request.headers.append({QByteArray(field.name_string().data(), qsizetype(field.name_string().size())),
                                    QByteArray(field.value().data(), qsizetype(field.value().size()))});
        request.body = QByteArray(message.body().data(), qsizetype(message.body().size()));
        std::string().swap(message.body());
        {
            beast::error_code ignored;
            const auto endpoint = derived().lowest().socket().remote_endpoint(ignored);
            if (!ignored)
                request.peer = QByteArray::fromStdString(endpoint.address().to_string());
        }
        const bool keepAlive = message.keep_alive();
        QKServiceResponse response;
        try {
            response = server->handler(request);
        } catch (const std::exception &error) {
            response = QKServiceRoutes::refusal(QKServiceRefusal::StoreFailed);
            response.note = error.what();
        }
        const QByteArray method = request.method;
        request = {};
        server->unreserve(reserved);
        reserved = 0;
        log(method, response);
        send(std::move(response), keepAlive);
    }

    void log(const QByteArray &method, const QKServiceResponse &response)
    {
        const double ms = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
        server->logger(method + ' ' + (response.route.isEmpty() ? QByteArray("(unknown)") : response.route) + ' ' +
                       QByteArray::number(response.status) + ' ' + QByteArray::number(ms, 'f', 1) + " ms" +
                       (response.note.isEmpty() ? QByteArray() : " (" + response.note + ')'));
    }

    // An answer that ends the connection: what came before the body could not be served.
    void refuse(QKServiceRefusal refusal)
    {
        started = Clock::now();
        QKServiceResponse response = QKServiceRoutes::refusal(refusal);
        response.route = "(refused)";
        if (refusal == QKServiceRefusal::Busy)
            response.headers.append(qMakePair(QByteArray("Retry-After"), QByteArray("1")));
        const QByteArray method =
            parser && parser->is_header_done()
                ? QByteArray(parser->get().method_string().data(), qsizetype(parser->get().method_string().size()))
                : QByteArray("-");
        log(method, response);
        send(std::move(response), false);
    }

    void send(QKServiceResponse response, bool keepAlive)
    {
        if (response.stream)
            return openStream(std::move(response));
        busy = true;
        auto message = head<http::string_body>(response);
        message->body().assign(response.body.constData(), size_t(response.body.size()));
        response.body = {};
        message->keep_alive(keepAlive && !server->draining);
        message->prepare_payload();
        derived().lowest().expires_after(milliseconds(options().writeTimeoutMs));
        http::async_write(derived().stream(), *message,
                          [self = derived().shared_from_this(), message](beast::error_code ec, std::size_t) {
                              if (ec || !message->keep_alive())
                                  return self->closeStream();
                              self->doRead();
                          });
    }

    // Headers, then whatever the stream's writer queues, until either side closes. The
    // connection counts as idle, so a drain closes it.
    void openStream(QKServiceResponse response)
    {
        busy = false;
        auto header = head<http::empty_body>(response);
        header->keep_alive(false); // the body ends when the connection does
        auto serializer = std::make_shared<http::response_serializer<http::empty_body>>(*header);
        derived().lowest().expires_after(milliseconds(options().writeTimeoutMs));
        http::async_write_header(derived().stream(), *serializer,
                                 [self = derived().shared_from_this(), header, serializer,
                                  attach = std::move(response.stream)](beast::error_code ec, std::size_t) {
                                     if (ec)
                                         return self->closeStream();
                                     auto stream = std::make_shared<Stream>(self);
                                     self->readUntilClosed();
                                     attach(stream);
                                 });
    }

    // A streamed answer's reader sends nothing more; reading tells when it goes.
    void readUntilClosed()
    {
        buffer.consume(buffer.size());
        derived().stream().async_read_some(buffer.prepare(512),
                                           [self = derived().shared_from_this()](beast::error_code ec, std::size_t) {
                                               if (ec) {
                                                   self->streamClosed = true;
                                                   return self->closeStream();
                                               }
                                               self->readUntilClosed();
                                           });
    }

    class Stream : public QKResponseStream
    {
    public:
        explicit Stream(const std::shared_ptr<Derived> &session) : session(session) {}
        bool write(const QByteArray &bytes) override
        {
            auto s = session.lock();
            if (!s || s->streamClosed)
                return false;
            net::post(s->stream().get_executor(), [s, bytes] { s->queueWrite(bytes); });
            return true;
        }

    private:
        std::weak_ptr<Derived> session;
    };

    void queueWrite(const QByteArray &bytes)
    {
        if (streamClosed)
            return;
        queuedBytes += bytes.size();
        if (queuedBytes > 1024 * 1024) { // a reader this far behind is not reading
            streamClosed = true;
            return derived().closeStream();
        }
        pending.push_back(bytes);
        if (pending.size() == 1)
            writeNext();
    }
    void writeNext()
    {
        // Each write renews the deadline, so heartbeats keep a healthy stream open.
        derived().lowest().expires_after(milliseconds(options().writeTimeoutMs));
        net::async_write(derived().stream(), net::buffer(pending.front().constData(), size_t(pending.front().size())),
                         [self = derived().shared_from_this()](beast::error_code ec, std::size_t) {
                             if (ec) {
                                 self->streamClosed = true;
                                 return self->closeStream();
                             }
                             self->queuedBytes -= self->pending.front().size();
                             self->pending.pop_front();
                             if (!self->pending.empty())
                                 self->writeNext();
                         });
    }

protected:
    QKHttpServer::Private *server;
    beast::flat_buffer buffer;
    std::atomic<bool> streamClosed{false};
    std::deque<QByteArray> pending;
    qint64 queuedBytes = 0;
    std::optional<http::request_parser<http::string_body>> parser;
    bool busy = false;

private:
    qint64 reserved = 0;
    bool enrolled = false;
    std::list<std::weak_ptr<SessionBase>>::iterator registration;
    Clock::time_point started = Clock::now();
};

class PlainSession : public Session<PlainSession>, public std::enable_shared_from_this<PlainSession>
{
public:
    PlainSession(tcp::socket &&socket, QKHttpServer::Private *server) : Session(server), m_stream(std::move(socket)) {}
    beast::tcp_stream &stream() { return m_stream; }
    beast::tcp_stream &lowest() { return m_stream; }
    void run()
    {
        net::dispatch(m_stream.get_executor(), [self = shared_from_this()] { self->doRead(); });
    }
    void closeStream()
    {
        beast::error_code ec;
        m_stream.socket().shutdown(tcp::socket::shutdown_send, ec);
        m_stream.close();
    }

private:
    beast::tcp_stream m_stream;
};

class TlsSession : public Session<TlsSession>, public std::enable_shared_from_this<TlsSession>
{
public:
    TlsSession(tcp::socket &&socket, ssl::context &context, QKHttpServer::Private *server)
        : Session(server), m_stream(std::move(socket), context)
    {}
    beast::ssl_stream<beast::tcp_stream> &stream() { return m_stream; }
    beast::tcp_stream &lowest() { return beast::get_lowest_layer(m_stream); }
    void run()
    {
        net::dispatch(m_stream.get_executor(), [self = shared_from_this()] {
            self->busy = true; // a handshake is not an idle connection, but it is bounded
            self->lowest().expires_after(milliseconds(self->options().headerTimeoutMs));
            self->m_stream.async_handshake(ssl::stream_base::server, [self](beast::error_code ec) {
                if (ec)
                    return self->lowest().close();
                self->doRead();
            });
        });
    }
    void closeStream()
    {
        if (m_closing)
            return;
        m_closing = true;
        lowest().expires_after(std::chrono::seconds(2));
        m_stream.async_shutdown([self = shared_from_this()](beast::error_code) { self->lowest().close(); });
    }

private:
    beast::ssl_stream<beast::tcp_stream> m_stream;
    bool m_closing = false;
};

} // namespace

void QKHttpServer::Private::doAccept()
{
    acceptor->async_accept(net::make_strand(ioc), beast::bind_front_handler(&Private::onAccept, this));
}

void QKHttpServer::Private::onAccept(beast::error_code ec, tcp::socket socket)
{
    if (ec == net::error::operation_aborted || draining)
        return;
    if (ec) {
        // Out of descriptors, say: try again shortly rather than spinning.
        acceptRetry->expires_after(milliseconds(50));
        acceptRetry->async_wait([this](beast::error_code e) {
            if (!e && !draining)
                doAccept();
        });
        return;
    }
    if (sessionCount() >= size_t(options.maxConnections)) {
        beast::error_code ignored;
        socket.close(ignored);
    } else {
        beast::error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        if (tls) {
            auto session = std::make_shared<TlsSession>(std::move(socket), *tls, this);
            session->enrol(session);
            session->run();
        } else {
            auto session = std::make_shared<PlainSession>(std::move(socket), this);
            session->enrol(session);
            session->run();
        }
    }
    doAccept();
}

QKHttpServer::QKHttpServer(const QKHttpServerOptions &options, Handler handler, Logger logger)
    : d(std::make_unique<Private>())
{
    d->options = options;
    d->handler = std::move(handler);
    d->logger = std::move(logger);
}

QKHttpServer::~QKHttpServer()
{
    stop();
}

void QKHttpServer::bind()
{
    if (d->acceptor)
        return;
    const QKHttpServerOptions &o = d->options;
    if (o.tls) {
        d->tls.emplace(ssl::context::tls_server);
        d->tls->set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                            ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1 | ssl::context::single_dh_use);
        try {
            d->tls->use_certificate_chain_file(o.certificateFile.toStdString());
            d->tls->use_private_key_file(o.keyFile.toStdString(), ssl::context::pem);
        } catch (const boost::system::system_error &error) {
            throw std::runtime_error("Cannot use the TLS certificate " + o.certificateFile.toStdString() +
                                     " with the key " + o.keyFile.toStdString() + ": " + error.code().message());
        }
    }
    try {
        tcp::resolver resolver(d->ioc);
        const auto endpoints = resolver.resolve(o.host.toStdString(), std::to_string(o.port),
                                                tcp::resolver::passive | tcp::resolver::numeric_service);
        const tcp::endpoint endpoint = *endpoints.begin();
        d->acceptor.emplace(d->ioc);
        d->acceptor->open(endpoint.protocol());
        d->acceptor->set_option(net::socket_base::reuse_address(true));
        d->acceptor->bind(endpoint);
        d->acceptor->listen(net::socket_base::max_listen_connections);
        d->boundPort = d->acceptor->local_endpoint().port();
    } catch (const boost::system::system_error &error) {
        throw std::runtime_error("Cannot listen on " + o.host.toStdString() + ":" + std::to_string(o.port) + ": " +
                                 error.code().message());
    }
}

void QKHttpServer::start()
{
    bind();
    const QKHttpServerOptions &o = d->options;
    d->acceptRetry.emplace(d->ioc);
    d->doAccept();
    for (int i = 0; i < std::max(1, o.threads); ++i)
        d->threads.emplace_back([this] { d->ioc.run(); });
}

quint16 QKHttpServer::port() const
{
    return d->boundPort;
}

void QKHttpServer::stop()
{
    std::lock_guard stopLock(d->stopMutex);
    if (d->stopped || d->threads.empty())
        return;
    d->stopped = true;
    d->draining = true;
    net::post(d->ioc, [this] {
        beast::error_code ignored;
        d->acceptor->close(ignored);
        d->acceptRetry->cancel();
    });
    std::vector<std::shared_ptr<SessionBase>> live;
    {
        std::lock_guard lock(d->registryMutex);
        for (const auto &weak : d->sessions)
            if (auto session = weak.lock())
                live.push_back(std::move(session));
    }
    // Each session runs on its own strand; close it there.
    for (const auto &session : live) {
        if (auto *tlsSession = dynamic_cast<TlsSession *>(session.get()))
            net::post(tlsSession->stream().get_executor(), [session] { session->closeIfIdle(); });
        else if (auto *plain = dynamic_cast<PlainSession *>(session.get()))
            net::post(plain->stream().get_executor(), [session] { session->closeIfIdle(); });
    }
    live.clear();
    {
        std::unique_lock lock(d->registryMutex);
        d->registryEmpty.wait_for(lock, milliseconds(d->options.drainTimeoutMs),
                                  [this] { return d->sessions.empty(); });
    }
    d->ioc.stop();
    for (std::thread &t : d->threads)
        t.join();
    d->threads.clear();
}
