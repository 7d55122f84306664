#include <gtest/gtest.h>
#include <tests/support/ServerProcess.h>
#include <tests/support/TempFolder.h>

#include <filesystem>
#include <optional>
#include <string>

namespace {

// A folder of files, and the server of it.
class HttpServer : public testing::Test {
protected:
    HttpServer() {
        m_folder.Put("page.html", "0123456789");
        m_folder.Put("large", m_large);
        std::filesystem::create_directory(m_folder.Path("a folder"));
        m_folder.Put("a folder/index.html", "inside");
        std::filesystem::create_symlink("/etc/passwd", m_folder.Path("link"));
        std::filesystem::create_symlink("page.html", m_folder.Path("good-link"));
    }

    static std::string Get(const std::string& target, const std::string& headers = "") {
        return "GET " + target + " HTTP/1.1\r\nHost: x\r\n" + headers + "\r\n";
    }

    static size_t Count(const std::string& text, const std::string& what) {
        size_t count = 0;
        for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) {
            ++count;
        }
        return count;
    }

    const CTempFolder m_folder;
    const std::string m_program = HTTP_SERVER " --listen 127.0.0.1:0 --root " + m_folder.Path();
    const std::string m_large = std::string(300000, '#') + "end";
};

TEST_F(HttpServer, AnswersEachRequestAsItMust) {
    const ServerProcess server(m_program);
    const std::string all = "0123456789";
    const struct {
        std::string request;
        std::string status;
        std::string header = "";  // one that is there
        std::optional<std::string> body = {};
    } cases[] = {
        {Get("/page.html"), "200 OK", "Content-Type: text/html; charset=utf-8", all},
        {Get("/pa%67e.html?q#f"), "200 OK", "Content-Length: 10", all},
        {Get("/good-link"), "200 OK", "Content-Type: application/octet-stream", all},
        {Get("/large"), "200 OK", "Content-Length: 300003", m_large},
        {"HEAD /page.html HTTP/1.1\r\nHost: x\r\n\r\n", "200 OK", "Content-Length: 10", ""},
        {"GET /page.html HTTP/1.0\r\n\r\n", "200 OK", "Connection: close", all},
        // Folders, and the way out of the one that is served.
        {Get("/a%20folder/"), "200 OK", "", "inside"},
        {Get("//a%20folder"), "301 Moved Permanently", "Location: /a%20folder/"},
        {Get("/../../../../etc/passwd"), "404 Not Found"},
        {Get("/a%20folder/..%2f..%2f..%2fetc/passwd"), "404 Not Found"},
        {Get("/link"), "404 Not Found"},
        // Ranges.
        {Get("/page.html", "Range: bytes=2-4\r\n"), "206 Partial Content",
         "Content-Range: bytes 2-4/10", "234"},
        {Get("/page.html", "Range: bytes=-3\r\n"), "206 Partial Content", "", "789"},
        {Get("/page.html", "Range: bytes=10-\r\n"), "416 Range Not Satisfiable",
         "Content-Range: bytes */10"},
        {Get("/page.html", "Range: bytes=0-1,3-4\r\n"), "200 OK", "", all},
        {Get("/page.html", "Range: bytes=0-1\r\nIf-Range: \"x\"\r\n"), "200 OK", "", all},
        // Conditions.
        {Get("/page.html", "If-Modified-Since: Fri, 01 Jan 2100 00:00:00 GMT\r\n"),
         "304 Not Modified", "", ""},
        // What cannot be read ends the connection.
        {Get("/page.html%00"), "400 Bad Request"},
        {"GET / HTTP/1.1\r\n\r\n" + Get("/"), "400 Bad Request", "Connection: close"},
        {"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nabc", "405 Method Not Allowed",
         "Allow: GET, HEAD"},
        {Get("/", "Content-Length: 65537\r\n"), "413 Content Too Large"},
        {Get("/" + std::string(9000, 'a')), "414 URI Too Long"},
        {Get("/", "X: " + std::string(17000, 'a') + "\r\n"), "431 Request Header Fields Too Large"},
        {"GET / HTTP/2.0\r\nHost: x\r\n\r\n", "505 HTTP Version Not Supported"},
    };
    const long before = server.CountDescriptors();
    for (const auto& tried : cases) {
        const TestClient client(server.GetPort());
        client.Send(tried.request);
        client.EndSending();
        const std::string answer = client.ReceiveAll();
        const size_t end = answer.find("\r\n\r\n");
        const std::string head = answer.substr(0, end) + "\r\n";
        const std::string shown = tried.request.substr(0, 100) + head;
        EXPECT_EQ(0U, answer.find("HTTP/1.1 " + tried.status + "\r\n")) << shown;
        EXPECT_NE(std::string::npos, head.find("\r\n" + tried.header)) << shown;
        if (tried.body && end != std::string::npos) {
            EXPECT_TRUE(*tried.body == answer.substr(end + 4)) << shown;
        }
    }
    server.ExpectDescriptors(before);
}

TEST_F(HttpServer, PipelinedAnswersWaitForTheClientAtABoundedCostAndEndWhole) {
    constexpr size_t c_requests = 3000;
    ServerProcess server(m_program + " --threads 2");
    const long before = server.CountDescriptors();
    const TestClient client(server.GetPort(), 4096);
    std::string requests;
    for (size_t i = 0; i < c_requests; ++i) {
        requests += Get(i % 2 == 0 ? "/large" : "/page.html", "Range: bytes=0-49999\r\n");
    }
    client.Send(requests + Get("/nothing", "Connection: close\r\n"));
    const std::string first = client.Receive(50000);
    EXPECT_LT(server.CountDescriptors(), before + 300);
    // What is asked for before the end is answered before it.
    server.Signal(SIGTERM);
    const std::string all = first + client.ReceiveAll();
    const size_t answers = Count(all, "HTTP/1.1 206 Partial Content\r\n");
    EXPECT_EQ(0, server.Wait());
    EXPECT_GE(answers, 2U);
    EXPECT_EQ((answers + 1) / 2 * 50000, Count(all, "#"));
}

}  // namespace
