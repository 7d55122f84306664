// Files over HTTP: http_server of the examples beside nginx with one worker, both under wrk: the
// processor time that the server takes for a request. The server has processor 0, the client 1.
#include "bench.h"

#ifdef NXBENCH_NGINX

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "programs.h"

namespace bench {

namespace {

// The servers, in a process of their own, for what is in the scratch folder.
void RunNginx(unsigned short port) {
    const std::string& folder = GetScratchFolder();
    const std::string path = folder + "/nginx.conf";
    std::ofstream file(path);
    file << "daemon off; master_process off; worker_processes 1; error_log /dev/null;\n"
            "pid "
         << folder
         << "/nginx.pid; events { worker_connections 1024; }\n"
            "http { access_log off; sendfile on; tcp_nopush on;\n"
            "keepalive_timeout 1h; keepalive_requests 1000000000;\n"
            "client_body_temp_path body; proxy_temp_path proxy; fastcgi_temp_path fastcgi;\n"
            "uwsgi_temp_path uwsgi; scgi_temp_path scgi;\n"
            "server { listen 127.0.0.1:"
         << port << "; root " << folder << "; } }\n";
    file.close();
    Require(file.good(), path.c_str());
    Exec(0, {NXBENCH_NGINX, "-p", folder, "-c", path, "-e", "/dev/null"});
}

void RunOurs(unsigned short port) {
    Exec(0, {NXBENCH_HTTP_SERVER, "--root", GetScratchFolder(), "--listen",
             "127.0.0.1:" + std::to_string(port)});
}

// Bytes of the body; 0 while the server does not listen.
size_t Fetch(unsigned short port, const std::string& name) {
    const std::string reply =
        Ask(port, "GET /" + name + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
    const size_t head = reply.find("\r\n\r\n");
    return head == std::string::npos ? 0 : reply.size() - head - 4;
}

// For a second, over 50 connections that stay: how many requests were answered.
long Load(unsigned short port, const std::string& name) {
    PinTo(1);
    const std::string cut = IsSmoke() ? "timeout --preserve-status -s INT 0.1 " : "";
    const std::string said =
        ReadOutput(cut + NXBENCH_WRK " -t 1 -c 50 -d 1s http://127.0.0.1:" + std::to_string(port) +
                   "/" + name);
    const size_t end = said.find(" requests in");
    Require(end != std::string::npos && said.find("Non-2xx") == std::string::npos &&
                said.find("Socket errors") == std::string::npos,
            "wrk");
    return std::atol(said.c_str() + said.rfind('\n', end));
}

double Serve(void (*run)(unsigned short), const std::string& name, size_t size) {
    const std::string path = GetScratchFolder() + "/" + name;
    std::ofstream file(path);
    file << std::string(size, 'x');
    file.close();
    Require(file.good(), path.c_str());
    const unsigned short port = FindPort();
    const pid_t server = StartProcess([&] { run(port); });
    size_t fetched = 0;
    while ((fetched = Fetch(port, name)) == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    Require(fetched == size, "the file is not what was served");
    const double before = CpuTimeInNs(server);
    const long requests = Load(port, name);
    const double after = CpuTimeInNs(server);
    Require(requests > 0, "nothing was served");
    EndProcess(server);
    return (after - before) / static_cast<double>(requests);
}

}  // namespace

void AddHttp(std::vector<Case>& cases) {
    const auto add = [&](const char* name, const char* fileName, size_t size) {
        cases.push_back(
            {"http", name, "nginx", 0, [=] { return Serve(RunNginx, fileName, size); }});
        cases.push_back({"http", name, "nxbase http_server", 0,
                         [=] { return Serve(RunOurs, fileName, size); }});
    };
    add("1 KiB", "small", 1024);
    add("1 MiB", "large", 1 << 20);
}

}  // namespace bench

#else

void bench::AddHttp(std::vector<Case>& /*cases*/) {}

#endif
