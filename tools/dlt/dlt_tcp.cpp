#include "dlt_tcp.hpp"

namespace logferry_dlt {

Tcp_server::~Tcp_server() { close(); }
bool Tcp_server::listen(const std::string&, std::uint16_t) { return false; }
std::uint16_t Tcp_server::port() const { return port_; }
void Tcp_server::service(int, const std::function<void(int, const Control_request&)>&) {}
void Tcp_server::broadcast(const unsigned char*, std::size_t) {}
void Tcp_server::send_to(int, const std::vector<unsigned char>&) {}
std::size_t Tcp_server::client_count() const { return clients_.size(); }
void Tcp_server::close() {}

}  // namespace logferry_dlt
