#include "test_openssl.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <fstream>
#include <iterator>
#include <stdexcept>

#include <openssl/cms.h>
#include <openssl/pem.h>

namespace testssl {
namespace {

const std::string& scratch() {
    static const std::string dir = [] {
        std::string tmpl = "/tmp/zorvo-test-XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        return tmpl;
    }();
    return dir;
}

std::string bio_text(BIO* bio) {
    char* data = nullptr;
    long len = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<size_t>(len));
}

}  // namespace

std::string write_temp(const std::string& name, const std::string& content) {
    const std::string path = scratch() + "/" + name;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return path;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

int run(const std::string& command, std::string* out) {
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return -1;
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) text.append(buffer, n);
    const int status = pclose(pipe);
    if (out != nullptr) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Verified cms_verify(const std::string& pem, const std::string& trusted, const std::string* detached, bool gost) {
    static int counter = 0;
    const std::string tag = std::to_string(++counter);
    const std::string sig = write_temp("sig" + tag + ".pem", pem);
    const std::string ca = write_temp("ca" + tag + ".pem", trusted);
    const std::string out = scratch() + "/out" + tag + ".bin";
    std::string command = "openssl cms -verify -binary -inform PEM -in " + sig + " -CAfile " + ca +
                          " -partial_chain -purpose any -out " + out;
    if (detached != nullptr) command += " -content " + write_temp("content" + tag + ".bin", *detached);
    if (gost) command += " -engine gost";
    Verified result;
    result.ok = run(command + " 2>&1", &result.log) == 0;
    result.content = read_file(out);
    return result;
}

cms_ptr parse_pem(const std::string& pem) {
    p11::ossl::bio_ptr in(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return cms_ptr(PEM_read_bio_CMS(in.get(), nullptr, nullptr, nullptr));
}

std::string cert_pem(X509* cert) {
    p11::ossl::bio_ptr out(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(out.get(), cert);
    return bio_text(out.get());
}

std::string key_pem(EVP_PKEY* key) {
    p11::ossl::bio_ptr out(BIO_new(BIO_s_mem()));
    PEM_write_bio_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
    return bio_text(out.get());
}

}  // namespace testssl
