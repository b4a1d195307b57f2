// Sound archives around any text, so that fuzzing reaches behind an archive's checksums.

#ifndef FUZZ_ARCHIVES_H_
#define FUZZ_ARCHIVES_H_

#include <zip.h>

#include <cstdlib>
#include <map>
#include <string>

namespace fuzz {

inline void AddEntry(zip_t* archive, const std::string& name, const std::string& text) {
  zip_source_t* source = zip_source_buffer(archive, text.data(), text.size(), 0);
  const zip_int64_t index = zip_file_add(archive, name.c_str(), source, 0);
  if (index < 0 ||
      zip_set_file_compression(archive, static_cast<zip_uint64_t>(index), ZIP_CM_STORE, 0) != 0) {
    abort();
  }
}

// An archive of these entries, by name, uncompressed.
inline std::string Archive(const std::map<std::string, std::string>& entries) {
  zip_error_t error;
  zip_source_t* bytes = zip_source_buffer_create(nullptr, 0, 0, &error);
  zip_source_keep(bytes);
  zip_t* archive = zip_open_from_source(bytes, ZIP_TRUNCATE, &error);
  for (const auto& [name, text] : entries) AddEntry(archive, name, text);
  if (zip_close(archive) != 0) abort();

  zip_source_open(bytes);
  zip_source_seek(bytes, 0, SEEK_END);
  std::string epub(static_cast<std::size_t>(zip_source_tell(bytes)), '\0');
  zip_source_seek(bytes, 0, SEEK_SET);
  if (zip_source_read(bytes, epub.data(), epub.size()) < 0) abort();
  zip_source_close(bytes);
  zip_source_free(bytes);
  return epub;
}

inline std::string EpubAround(const std::string& package) {
  static const std::string kContainer =
      "<container><rootfiles><rootfile full-path=\"a.opf\" "
      "media-type=\"application/oebps-package+xml\"/></rootfiles></container>";
  return Archive({{"META-INF/container.xml", kContainer}, {"a.opf", package}});
}

}  // namespace fuzz

#endif  // FUZZ_ARCHIVES_H_
