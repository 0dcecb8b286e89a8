// publish.cpp: publish one extract with libOrvaneServer's C++ header.
//
//   c++ -std=c++17 publish.cpp $(pkg-config --cflags --libs orvane-server) -o publish
//   ORVANE_PASSWORD=secret ./publish http://127.0.0.1:8080 alice "" Samples sales.qrx sales
//
// Arguments are UTF-8. Exit status: 0 published, 1 failed, 75 failed but worth another try.
#include <orvane/orvane.hpp>

#include <cstdio>
#include <cstdlib>
#include <iostream>

int main(int argc, char** argv)
{
    if (argc != 7) {
        std::cerr << "usage: " << argv[0]
                  << " SERVER USER SITE PROJECT FILE.qrx NAME   (password in $ORVANE_PASSWORD)\n";
        return 2;
    }
    const char* password = std::getenv("ORVANE_PASSWORD");
    if (password == nullptr) {
        std::cerr << "set ORVANE_PASSWORD\n";
        return 2;
    }
    try {
        const orvane::Library library;
        orvane::Session session(argv[1], argv[2], password, argv[3]);
        session.setProgress([](std::uint64_t sent, std::uint64_t total) {
            std::fprintf(stderr, "\r%llu of %llu bytes", static_cast<unsigned long long>(sent),
                         static_cast<unsigned long long>(total));
        });
        session.publish(argv[5], argv[4], argv[6], true);
        std::cerr << '\n';
        std::cout << "published " << argv[5] << " as \"" << argv[6] << "\" in project \"" << argv[4] << "\"\n";
        return 0;
    } catch (const orvane::Error& error) {
        std::cerr << "\npublish failed (" << orvane::name(error.failure()) << "): " << error.what() << '\n';
        switch (error.code()) {
        case orvane::ErrorCode::ServerResponseError:
            std::cerr << "the server refused with HTTP " << error.httpStatus() << '\n';
            break;
        case orvane::ErrorCode::InvalidPublishInput:
            std::cerr << "check the file and the project name\n";
            break;
        default:
            break;
        }
        return orvane::isTransient(error.failure()) ? 75 : 1;
    }
}
