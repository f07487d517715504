#include <memory>
#include <utility>

#include "corvane/FileSetHasher.hpp"

namespace corvane {

FileSetItem FileSetItem::path(std::string path) {
  FileSetItem item;
  item.entry.kind = WalkEntry::Kind::file;
  item.entry.relativePath = path;
  item.entry.path = std::move(path);
  return item;
}

FileSetInput FileSetInput::paths(std::vector<std::string> paths) {
  auto shared = std::make_shared<std::vector<std::string>>(std::move(paths));
  return FileSetInput([shared, next = std::size_t{0}]() mutable -> std::optional<FileSetItem> {
    if (next >= shared->size()) return std::nullopt;
    return FileSetItem::path(std::move((*shared)[next++]));
  });
}

FileSetInput FileSetInput::walk(std::string root, WalkOptions options) {
  auto walk = std::make_shared<DirectoryWalk>(std::move(root), std::move(options));
  return FileSetInput([walk]() -> std::optional<FileSetItem> {
    std::optional<WalkEntry> entry = walk->next();
    if (!entry) return std::nullopt;
    FileSetItem item;
    item.entry = std::move(*entry);
    item.regularOnly = true;
    return item;
  });
}

FileSetInput FileSetInput::generator(Generator next) { return FileSetInput(std::move(next)); }

}  // namespace corvane
