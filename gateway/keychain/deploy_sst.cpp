// deploy_sst: makes the gateway's key chain, or repairs it from its copy. The supervisor runs it at each start.
//
// Exit status: 0 the key chain and its copy are there, 1 they are not (standard error tells why), 2 wrong usage.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "key_chain.h"

namespace {

const char* describe(gateway::Deployed done) {
  switch (done) {
    case gateway::Deployed::present:
      return "the key chain is there";
    case gateway::Deployed::created:
      return "a new key chain has been made";
    case gateway::Deployed::copied:
      return "the copy of the key chain has been made again";
    case gateway::Deployed::restored:
      return "the key chain has been restored from its copy";
  }
  return "";
}

}  // namespace

int main(int argc, char**) {
  if (argc != 1) {
    std::fputs("usage: deploy_sst\n", stderr);
    return 2;
  }
  // The caller's may be anything; the supervisor's is zero.
  ::umask(022);
  std::string problem;
  const auto done = gateway::deploy_key_chain("/quorvane/run", problem);
  if (!done) {
    std::fprintf(stderr, "deploy_sst: %s\n", problem.c_str());
    return EXIT_FAILURE;
  }
  std::printf("deploy_sst: %s\n", describe(*done));
  return EXIT_SUCCESS;
}
