// Sends 1000 requests over 10 connections: many_requests [http://host:port]
#include <vek/CVEKHttpClient.h>

#include <cstdio>
#include <vector>

int main(int argc, char** argv) {
    CVEKEventLoops loops;
    VEK_ST_HTTP_CLIENT_OPTIONS options;
    options.connections_ = 10;
    CVEKHttpClient client(loops, options);
    const auto problem = client.AddTarget(argc > 1 ? argv[1] : "http://127.0.0.1:8080");
    if (problem) {
        puts(problem.text_.c_str());
        return 1;
    }
    client.Connect();
    std::vector<std::future<VEK_ST_HTTP_RESPONSE>> answers;
    for (int i = 0; i < 1000; ++i) {
        answers.push_back(client.Send({}));
    }
    int good = 0;
    for (auto& answer : answers) {
        good += answer.get().status_ == 200 ? 1 : 0;
    }
    printf("%d of 1000 answered with 200\n", good);
    return good == 1000 ? 0 : 1;
}
