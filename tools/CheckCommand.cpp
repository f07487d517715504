#include "CheckCommand.hpp"
namespace corvane::tool {
CLI::App* addCheckCommand(CLI::App& app, CheckOptions& options) {
  auto* c = app.add_subcommand("check", "Verify files against checksum lists");
  c->add_option("LISTFILE", options.lists)->required();
  return c;
}
int runCheckCommand(const CheckOptions&, std::ostream&, std::ostream& err) {
  err << "check: not built yet\n";
  return 2;
}
}  // namespace corvane::tool
