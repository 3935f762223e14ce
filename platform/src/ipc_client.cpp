// IpcClient: a connected socket handed to an IpcConnection that proxies the server's
// handle 0.
#include "ipc_client.h"

#include "ipc_connection.h"
#include "ipc_io_service.h"
#include "ipc_peer_credentials.h"
#include "ipc_system_abilities.h"
#include "process_registry.h"

namespace Vex {

std::shared_ptr<IpcClient> IpcClient::Connect(const std::string& socketPath, std::string* error)
{
    asio::local::stream_protocol::socket socket(IpcIoService::Get().Context());
    asio::error_code code;
    socket.connect(asio::local::stream_protocol::endpoint(socketPath), code);
    if (code) {
        *error = "cannot connect to the IPC service at " + socketPath + ": " + code.message() +
                 " (is the service running?)";
        return nullptr;
    }
    IpcPeer peer = PeerCredentials(socket.native_handle());
    if (ProcessRegistry::Get().IsDead(peer.pid)) {
        ProcessRegistry::Get().Revive(peer.pid);  // the pid was reused
    }
    auto connection = IpcConnection::Start(std::move(socket), peer, nullptr, nullptr);
    return std::shared_ptr<IpcClient>(new IpcClient(std::move(connection)));
}

IpcClient::IpcClient(std::shared_ptr<IpcConnection> connection) : connection_(std::move(connection)) {}

IpcClient::~IpcClient()
{
    Close();
}

sptr<IRemoteObject> IpcClient::GetSystemAbility(int32_t id)
{
    return QueryRemoteSystemAbility(connection_->RootProxy(), id);
}

void IpcClient::InstallAsSystemAbilityManager()
{
    SystemAbilityManagerClient& client = SystemAbilityManagerClient::GetInstance();
    sptr<ISystemAbilityManager> local = client.GetSystemAbilityManager();
    client.SetSystemAbilityManager(new RemoteSystemAbilityManager(local, connection_->RootProxy()));
}

IpcPeer IpcClient::ServerPeer() const
{
    return connection_->Peer();
}

bool IpcClient::IsConnected() const
{
    return connection_->IsConnected();
}

void IpcClient::Close()
{
    connection_->Close();
    if (!IpcIoService::Get().InLoopThread()) {
        connection_->WaitClosed(std::chrono::seconds(5));
    }
}

}  // namespace Vex
