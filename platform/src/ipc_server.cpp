// IpcServer: an asio acceptor on the IPC loop; each accepted socket becomes a connection
// that exports this process's system ability manager as handle 0.
#include "ipc_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <set>

#include "ipc_connection.h"
#include "ipc_io_service.h"
#include "ipc_log.h"
#include "ipc_peer_credentials.h"
#include "ipc_system_abilities.h"
#include "process_registry.h"

namespace Vex {

struct IpcServer::Impl : std::enable_shared_from_this<IpcServer::Impl> {
    explicit Impl(asio::io_context& context) : acceptor(context) {}
    void Accept();
    void Closed(IpcConnection& connection);

    asio::local::stream_protocol::acceptor acceptor;  // loop thread only after Listen
    std::string path;
    sptr<IRemoteObject> root;
    mutable std::mutex mutex;
    std::set<std::shared_ptr<IpcConnection>> connections;
    std::function<void(const IpcPeer&, bool)> observer;
    bool stopped = false;
};

void IpcServer::Impl::Accept()
{
    auto self = shared_from_this();
    acceptor.async_accept([self](const asio::error_code& error, asio::local::stream_protocol::socket socket) {
        if (error == asio::error::operation_aborted) {
            return;
        }
        {
            std::lock_guard<std::mutex> lock(self->mutex);
            if (self->stopped) {
                return;
            }
        }
        if (!error) {
            IpcPeer peer = PeerCredentials(socket.native_handle());
            if (ProcessRegistry::Get().IsDead(peer.pid)) {
                ProcessRegistry::Get().Revive(peer.pid);  // the pid was reused
            }
            std::weak_ptr<Impl> weak = self;
            auto connection = IpcConnection::Start(std::move(socket), peer, self->root, [weak](IpcConnection& closed) {
                if (auto impl = weak.lock()) {
                    impl->Closed(closed);
                }
            });
            std::function<void(const IpcPeer&, bool)> observer;
            {
                std::lock_guard<std::mutex> lock(self->mutex);
                self->connections.insert(connection);
                observer = self->observer;
            }
            if (observer) {
                observer(peer, true);
            }
        } else {
            VEX_IPC_LOGE("accepting an IPC connection failed: %{public}s", error.message().c_str());
        }
        self->Accept();
    });
}

void IpcServer::Impl::Closed(IpcConnection& connection)
{
    std::shared_ptr<IpcConnection> dropped;  // outside the lock: it may be the last reference
    std::function<void(const IpcPeer&, bool)> observer;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto it = connections.begin(); it != connections.end(); ++it) {
            if (it->get() == &connection) {
                dropped = *it;
                connections.erase(it);
                break;
            }
        }
        observer = this->observer;
    }
    if (observer && dropped != nullptr) {
        observer(connection.Peer(), false);
    }
}

std::unique_ptr<IpcServer> IpcServer::Listen(const std::string& socketPath, std::string* error)
{
    auto impl = std::make_shared<Impl>(IpcIoService::Get().Context());
    asio::error_code code;
    asio::local::stream_protocol::endpoint endpoint(socketPath);
    impl->acceptor.open(endpoint.protocol(), code);
    if (!code) {
        impl->acceptor.bind(endpoint, code);
    }
    if (!code) {
        impl->acceptor.listen(asio::socket_base::max_listen_connections, code);
    }
    if (code) {
        *error = "cannot serve IPC at " + socketPath + ": " + code.message() +
                 " (check that the folder exists and no other service uses the socket)";
        return nullptr;
    }
    impl->path = socketPath;
    impl->root = new SystemAbilityManagerStub();
    asio::post(IpcIoService::Get().Context(), [impl] { impl->Accept(); });
    return std::unique_ptr<IpcServer>(new IpcServer(impl));
}

IpcServer::IpcServer(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

IpcServer::~IpcServer()
{
    Stop();
}

void IpcServer::SetConnectionObserver(std::function<void(const IpcPeer& peer, bool connected)> observer)
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->observer = std::move(observer);
}

size_t IpcServer::ConnectionCount() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->connections.size();
}

void IpcServer::Stop()
{
    std::set<std::shared_ptr<IpcConnection>> connections;
    {
        std::lock_guard<std::mutex> lock(impl_->mutex);
        if (impl_->stopped) {
            return;
        }
        impl_->stopped = true;
        connections = impl_->connections;
    }
    auto impl = impl_;
    asio::post(IpcIoService::Get().Context(), [impl] {
        asio::error_code ignored;
        impl->acceptor.close(ignored);
    });
    for (const auto& connection : connections) {
        connection->Close();
    }
    if (!IpcIoService::Get().InLoopThread()) {
        for (const auto& connection : connections) {
            connection->WaitClosed(std::chrono::seconds(5));
        }
    }
    unlink(impl_->path.c_str());
}

}  // namespace Vex
