// The sandbox: pointing a host at a local sandbox rewards service.
#include <string>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

int main(int argc, char** argv) {
  const std::string port = argc > 1 ? argv[1] : "8080";
  const std::string certificate = argc > 2 ? argv[2] : "";

  //! [sandbox_http]
  // zv_sandbox_server --port 8080 prints the address, app id and token.
  ZVConfiguration configuration;
  configuration.serviceHost = "http://127.0.0.1:" + port;
  configuration.appID = "sandbox-app";
  configuration.accessToken = "sandbox-token";
  configuration.allowInsecureHTTP = true;  // plain http: a loopback sandbox only
  Zorvane::configure(configuration);
  //! [sandbox_http]

  //! [sandbox_tls]
  // zv_sandbox_server --tls prints the path of its self-signed certificate.
  configuration.serviceHost = "https://127.0.0.1:" + port;
  configuration.allowInsecureHTTP = false;
  configuration.caFile = certificate;  // trusted in addition to the system's store
  Zorvane::configure(configuration);
  //! [sandbox_tls]
  return 0;
}
