#include "tests/transport_grpc/test_certificates.h"

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace tolvar_test {
namespace {

std::string outputOf(const std::string& command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), &::pclose);
  if (!pipe) throw std::runtime_error("cannot run: " + command);
  std::string text;
  std::array<char, 4096> buffer;
  while (std::fgets(buffer.data(), buffer.size(), pipe.get()) != nullptr) text += buffer.data();
  return text;
}

void run(const std::string& command) {
  const std::string text = outputOf(command + " 2>&1 && echo done");
  if (!text.ends_with("done\n")) throw std::runtime_error(command + ": " + text);
}

}  // namespace

TestAuthority::TestAuthority(const std::string& name) {
  run(std::string("openssl req -x509 -nodes -newkey ") + kStrong + " -days 2 -subj /CN=" + name +
      " -keyout " + _directory.file("ca.key") + " -out " + caFile() +
      " -addext keyUsage=critical,keyCertSign,cRLSign");
}

tolvar::GrpcTlsFiles TestAuthority::issue(const std::string& label, const std::string& host,
                                          int days, const std::string& algorithm) {
  const std::string base = _directory.file(label);
  const std::string kind = host == "127.0.0.1" ? "IP:" : "DNS:";
  writeFile(base + ".ext", "subjectAltName=" + kind + host + "\n");
  run("openssl req -new -nodes -newkey " + algorithm + " -subj /CN=" + label + " -keyout " + base +
      ".key -out " + base + ".csr");
  run("openssl x509 -req -days " + std::to_string(days) + " -in " + base + ".csr -CA " + caFile() +
      " -CAkey " + _directory.file("ca.key") + " -CAcreateserial -extfile " + base + ".ext -out " +
      base + ".pem");
  return {caFile(), base + ".pem", base + ".key", std::chrono::seconds(1)};
}

std::string encryptedKey(const std::string& keyFile) {
  return outputOf("openssl pkey -aes256 -passout pass:secret -in " + keyFile);
}

std::string shownFingerprint(const std::string& address) {
  return outputOf("openssl s_client -alpn h2 -connect " + address +
                  " </dev/null 2>/dev/null | openssl x509 -noout -fingerprint -sha256 2>/dev/null");
}

std::string fileFingerprint(const std::string& certFile) {
  return outputOf("openssl x509 -noout -fingerprint -sha256 -in " + certFile);
}

}  // namespace tolvar_test
