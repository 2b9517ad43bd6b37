// Parsing and writing of real-shaped documents beside RapidJSON, Boost.JSON, nlohmann and simdjson.
// The figures are medians of interleaved runs; the ratios are times of the peer over ours.
//
// Parsing: into an arena with a first block of 8192 bytes, repeated keys allowed, the document
// destroyed again; Boost.JSON the same with its monotonic_resource(8192), RapidJSON with its pool.
// Writing: compact, into a fresh string.

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <simdjson.h>

#include <boost/json.hpp>
#include <nlohmann/json.hpp>

#include "bench/Documents.h"
#include "bench/Interleaved.h"
#include "json/JsonParser.h"
#include "json/JsonSerializer.h"

namespace {

using rrm::bench::Contender;
using rrm::bench::Document;
using rrm::bench::keep;

constexpr std::size_t kArenaHint = 8192;
constexpr const char* kPeers[] = {"ours", "boost", "rapidjson", "nlohmann", "simdjson"};

yajson::JsonValue parse_ours(std::string_view text) {
  yajson::ParseOptions options;
  options.allow_duplicate_keys = true;
  return yajson::parse(text, options);
}

std::vector<Contender> parsers(const std::string& text, simdjson::dom::parser& simd) {
  return {
      {"ours",
       [&text] {
         yajson::MonotonicArena arena(kArenaHint);
         const yajson::ArenaScope scope(&arena);
         yajson::JsonValue value = parse_ours(text);
         keep(&value);
         value.abandon();  // as JsonReader does
       }},
      {"boost",
       [&text] {
         boost::json::monotonic_resource resource(kArenaHint);
         keep(boost::json::parse(text, &resource).kind());
       }},
      {"rapidjson",
       [&text] {
         rapidjson::Document document;
         document.Parse(text.data(), text.size());
         keep(document.GetType());
       }},
      {"nlohmann", [&text] { keep(nlohmann::json::parse(text).size()); }},
      {"simdjson", [&text, &simd] { keep(simd.parse(text).error()); }},
  };
}

/// The parsed documents that the writers write.
struct Trees {
  explicit Trees(const std::string& text)
      : ours(parse_ours(text)),
        boost(boost::json::parse(text)),
        nlohmann(nlohmann::json::parse(text)) {
    rapid.Parse(text.data(), text.size());
    simd = parser.parse(text).value();
  }
  yajson::JsonValue ours;
  boost::json::value boost;
  rapidjson::Document rapid;
  nlohmann::json nlohmann;
  simdjson::dom::parser parser;
  simdjson::dom::element simd;
};

std::vector<Contender> writers(Trees& trees) {
  return {
      {"ours", [&trees] { keep(yajson::serialize(trees.ours).size()); }},
      {"boost", [&trees] { keep(boost::json::serialize(trees.boost).size()); }},
      {"rapidjson",
       [&trees] {
         rapidjson::StringBuffer buffer;
         rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
         trees.rapid.Accept(writer);
         keep(buffer.GetSize());
       }},
      {"nlohmann", [&trees] { keep(trees.nlohmann.dump().size()); }},
      {"simdjson", [&trees] { keep(simdjson::minify(trees.simd).size()); }},
  };
}

void print_heading(const char* what) {
  std::printf("\n%-20s %9s %7s %10s", what, "bytes", "blocks", "ours us");
  for (std::size_t i = 1; i < std::size(kPeers); ++i) std::printf(" %11s", kPeers[i]);
  std::printf("\n");
}

/// Prints a line and returns the time of Boost over ours.
double print_line(const Document& document, std::size_t blocks,
                  const std::vector<double>& medians) {
  std::printf("%-20s %9zu %7zu %10.2f", document.name.c_str(), document.text.size(), blocks,
              medians[0] * 1e6);
  for (std::size_t i = 1; i < medians.size(); ++i) std::printf(" %9.2f x", medians[i] / medians[0]);
  std::printf("\n");
  std::fflush(stdout);
  return medians[1] / medians[0];
}

std::size_t blocks_of(const std::string& text) {
  yajson::MonotonicArena arena(kArenaHint);
  const yajson::ArenaScope scope(&arena);
  const yajson::JsonValue value = parse_ours(text);
  return arena.block_count();
}

void print_mean(const char* what, const std::vector<double>& ratios) {
  double sum = 0;
  for (const double ratio : ratios) sum += std::log(ratio);
  std::printf("%s: %.2f x boost, geometric mean; least %.2f x\n", what,
              std::exp(sum / static_cast<double>(ratios.size())),
              *std::min_element(ratios.begin(), ratios.end()));
}

}  // namespace

int main() {
  const std::vector<Document> documents = rrm::bench::sample_documents();
  std::vector<double> message_ratios;
  print_heading("parse");
  for (const Document& document : documents) {
    simdjson::dom::parser simd;
    const double ratio = print_line(document, blocks_of(document.text),
                                    rrm::bench::interleaved_medians(parsers(document.text, simd)));
    if (document.from_access_point) message_ratios.push_back(ratio);
  }
  print_mean("parse of access-point messages", message_ratios);

  std::vector<double> write_ratios;
  print_heading("write");
  for (const Document& document : documents) {
    Trees trees(document.text);
    write_ratios.push_back(
        print_line(document, 0, rrm::bench::interleaved_medians(writers(trees))));
  }
  print_mean("write", write_ratios);
}
