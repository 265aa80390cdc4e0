// Threads racing for the signing engine, each on a session of its own (run under ThreadSanitizer
// by scripts/reliability.sh): exactly one wins each round, the others are told at once.
#include <thread>

#include "fixture.h"

namespace {

TEST(Concurrency, OneSignatureWinsEachRound) {
    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    fx::Road road("zorvo-a", "rsa1", fx::env("MODULE"), &args);
    auto login = road.login();  // one login serves every session of the token
    fx::free_engine();
    constexpr int kThreads = 8;
    for (int round = 0; round < 12; ++round) {
        std::atomic<int> ready{0}, tried{0};
        std::vector<std::string> pems(kThreads);
        std::vector<int> codes(kThreads);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                auto session = road.slot->openSession(0);
                std::shared_ptr<p11::Certificate> cert;
                auto certs = session->enumerateCerts();
                for (auto& c : *certs)
                    if (c->getLabel() == "rsa1") cert = c;
                ++ready;
                while (ready < kThreads) std::this_thread::yield();
                std::shared_ptr<p11::Signer> signer;
                try {
                    if (t % 2) {
                        pems[t] = cert->signOnIt(nullptr, "one-shot", true);
                    } else {
                        signer = cert->startSigning(nullptr, true);
                        signer->addData("streamed", 8);
                        pems[t] = signer->finish();
                    }
                } catch (const p11::process_error& e) {
                    codes[t] = e.code();
                }
                ++tried;  // a streaming winner holds the engine until every thread has tried
                while (tried < kThreads) std::this_thread::yield();
            });
        for (auto& t : threads) t.join();
        int winners = 0;
        for (int t = 0; t < kThreads; ++t) {
            if (pems[t].empty()) {
                EXPECT_EQ(codes[t], 300);
                continue;
            }
            ++winners;
            EXPECT_EQ(fx::verify(pems[t], road.cert->getX509(), nullptr, false),
                      t % 2 ? "one-shot" : "streamed");
        }
        EXPECT_EQ(winners, 1) << "round " << round;
        fx::free_engine();
    }
}

}  // namespace
