// Every workload goes through the same operations.  Before anything is timed, both sides must have
// written the same bytes, read the same sum from them and found equal what is equal: a limit that
// does less than the product would be none.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <functional>

#include "bench/message/limit.h"
#include "bench/message/peers/peer.h"
#include "bench/message/product.h"
#include "bench/support/paired.h"

namespace {

using benchmark::DoNotOptimize;
using Bytes = std::vector<unsigned char>;

// The ways in which a workload is read.
template <class Value, class Reference, class View, class InPlace>
struct Readers {
  Value byValue;
  Reference byReference;
  View byView;
  InPlace inPlace;
};
template <class Value, class Reference, class View, class InPlace>
Readers(Value, Reference, View, InPlace) -> Readers<Value, Reference, View, InPlace>;

// The things that the operations of one workload share, made once and kept to the end.
template <class Struct, class Source>
struct Workload {
  Source source;
  Bytes bytes;                           // flattened
  std::unique_ptr<Struct> plain, other;  // the same contents twice
  std::unique_ptr<Struct> scratch;
  std::unique_ptr<unsigned char[]> buffer;
};

void require(bool holds, const std::string& name, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "message_bench: %s: product and limit differ in %s\n", name.c_str(), what);
  std::exit(1);
}

template <class Struct, class Source>
Workload<Struct, Source>& makeWorkload(const Source& source) {
  auto& made = *new Workload<Struct, Source>{source,
                                             {},
                                             std::make_unique<Struct>(),
                                             std::make_unique<Struct>(),
                                             std::make_unique<Struct>(),
                                             std::make_unique<unsigned char[]>(bench::limit::kBufferRoom)};
  bench::limit::build(*made.plain, source);
  bench::limit::build(*made.other, source);
  const std::size_t size = bench::limit::flatten(*made.plain, made.buffer.get());
  made.bytes.assign(made.buffer.get(), made.buffer.get() + size);
  return made;
}

template <class Work, class Read>
void verify(const std::string& name, Work& work, const Read& read) {
  kl::message built;
  bench::product::build(built, work.source);
  Bytes flat;
  built.flatten(flat);
  require(flat == work.bytes, name, "the bytes written");

  require(bench::limit::parse(*work.scratch, flat.data(), flat.size()), name, "what can be parsed");
  const kl::message parsed(flat);
  const unsigned long long sum = bench::limit::read(*work.scratch);
  require(read.byValue(parsed) == sum && read.byReference(parsed) == sum && read.byView(parsed) == sum &&
              read.inPlace(kl::message_view(work.bytes)) == sum,
          name, "the sum of the values read");
  require(parsed == built && bench::limit::equal(*work.scratch, *work.other), name, "what is equal");
}

template <class Work>
bench::Batch limitBuildAndFlatten(Work& work) {
  return bench::repeated([&work] {
    bench::limit::build(*work.scratch, work.source);
    DoNotOptimize(bench::limit::flatten(*work.scratch, work.buffer.get()));
    benchmark::ClobberMemory();
  });
}

template <class Work>
bench::Batch limitParse(Work& work) {
  return bench::repeated([&work] {
    DoNotOptimize(
        bench::limit::parseOuter(*work.scratch, work.bytes.data(), work.bytes.size(), work.buffer.get()));
    benchmark::ClobberMemory();
  });
}

template <class Work>
bench::Batch limitParseAndRead(Work& work) {
  return bench::repeated([&work] {
    DoNotOptimize(bench::limit::parse(*work.scratch, work.bytes.data(), work.bytes.size()));
    DoNotOptimize(bench::limit::read(*work.scratch));
  });
}

template <class Work>
bench::Batch limitCopy(Work& work) {
  return bench::repeated([&work] {
    const auto copy = bench::limit::copy(*work.plain);
    DoNotOptimize(copy.get());
    benchmark::ClobberMemory();
  });
}

template <class Work>
void addBuilding(const std::string& name, Work& work) {
  bench::addPair(name + "/build", bench::repeated([&work] {
                   kl::message built;
                   bench::product::build(built, work.source);
                   DoNotOptimize(built);
                 }),
                 bench::repeated([&work] {
                   bench::limit::build(*work.scratch, work.source);
                   DoNotOptimize(*work.scratch);
                 }));
  bench::addPair(name + "/build+flatten", bench::repeated([&work, flat = Bytes()]() mutable {
                   kl::message built;
                   bench::product::build(built, work.source);
                   built.flatten(flat);
                   DoNotOptimize(flat.data());
                   benchmark::ClobberMemory();
                 }),
                 limitBuildAndFlatten(work));
}

template <class Work, class Read>
void addParsing(const std::string& name, Work& work, const Read& read) {
  const bench::Batch parseAndRead = limitParseAndRead(work);
  bench::addPair(name + "/parse", bench::repeated([&work] {
                   const kl::message parsed(work.bytes);
                   DoNotOptimize(parsed);
                 }),
                 limitParse(work));
  bench::addPair(name + "/parse+read", bench::repeated([&work, readValue = read.byValue] {
                   const kl::message parsed(work.bytes);
                   DoNotOptimize(readValue(parsed));
                 }),
                 parseAndRead);
  bench::addPair(name + "/parse+read by reference",
                 bench::repeated([&work, readReference = read.byReference] {
                   const kl::message parsed(work.bytes);
                   DoNotOptimize(readReference(parsed));
                 }),
                 parseAndRead);
  bench::addPair(name + "/parse+read by view", bench::repeated([&work, readView = read.byView] {
                   const kl::message parsed(work.bytes);
                   DoNotOptimize(readView(parsed));
                 }),
                 parseAndRead);
  bench::addPair(name + "/parse+read in place", bench::repeated([&work, readInPlace = read.inPlace] {
                   const kl::message_view view(work.bytes);
                   DoNotOptimize(readInPlace(view));
                 }),
                 parseAndRead);
}

template <class Work>
void addCopyAndCompare(const std::string& name, Work& work) {
  const auto parsed = std::make_shared<const kl::message>(work.bytes);
  const auto other = std::make_shared<const kl::message>(work.bytes);
  bench::addPair(name + "/copy of a parsed message", bench::repeated([parsed] {
                   const kl::message copy(*parsed);
                   DoNotOptimize(copy);
                 }),
                 limitCopy(work));
  bench::addPair(name + "/compare", bench::repeated([parsed, other] { DoNotOptimize(*parsed == *other); }),
                 bench::repeated([&work] { DoNotOptimize(bench::limit::equal(*work.plain, *work.other)); }));
}

// A peer that reads another sum than the limit does other work.
template <class Work>
void verifyPeer(const std::string& name, Work& work, bench::PeerWork& peer) {
  require(bench::limit::parse(*work.scratch, work.bytes.data(), work.bytes.size()), name,
          "what can be parsed");
  const unsigned long long sum = bench::limit::read(*work.scratch);
  require(peer.buildAndFlatten() > 0 && peer.parse(), name, "what can be parsed");
  require(peer.parseAndRead() == sum, name, "the sum of the values read");
  peer.parseAndKeep();
  require(peer.copyAndRead() == sum, name, "the sum of the values of a copy");
}

template <class Work>
void addPeers(const std::string& name, Work& work) {
  for (const bench::Peer* peer : bench::peers()) {
    const std::shared_ptr<bench::PeerWork> with = peer->work(work.source);
    verifyPeer(name + ", " + peer->name(), work, *with);
    const auto add = [&](const char* operation, const auto& run, const bench::Batch& limit) {
      bench::addPair(name + operation + ": " + peer->name(), bench::repeated(run), limit);
    };
    add(
        "/build+flatten", [with] { DoNotOptimize(with->buildAndFlatten()); }, limitBuildAndFlatten(work));
    add(
        "/parse", [with] { DoNotOptimize(with->parse()); }, limitParse(work));
    add(
        "/parse+read", [with] { DoNotOptimize(with->parseAndRead()); }, limitParseAndRead(work));
    add(
        "/copy of a parsed message", [with] { with->copy(); }, limitCopy(work));
  }
}

// None of them has a message of any number of texts.
template <class Source>
void addPeers(const std::string& /*name*/, Workload<bench::limit::Flat, Source>& /*work*/) {}

template <class Struct, class Source, class Read>
void add(const std::string& name, const Source& source, const Read& read) {
  auto& work = makeWorkload<Struct>(source);
  verify(name, work, read);
  addBuilding(name, work);
  addParsing(name, work, read);
  addCopyAndCompare(name, work);
  addPeers(name, work);
}

// Of the functions that have one name, one that reads messages and one that reads views.
using OfMessage = unsigned long long (*)(const kl::message&);
using OfView = unsigned long long (*)(const kl::message_view&);
Readers<OfMessage, OfMessage, OfMessage, OfView> readersOf(OfMessage byValue, OfMessage byReference,
                                                           OfMessage byView, OfView inPlace) {
  return {byValue, byReference, byView, inPlace};
}

void addFlat(unsigned int fields) {
  using namespace bench::product;
  add<bench::limit::Flat>("flat " + std::to_string(fields), bench::flatSource(fields),
                          Readers{[fields](const kl::message& in) { return readFlat(in, fields); },
                                  [fields](const kl::message& in) { return readFlatByReference(in, fields); },
                                  [fields](const kl::message& in) { return readFlatByView(in, fields); },
                                  [fields](const kl::message_view& in) { return readFlat(in, fields); }});
}

}  // namespace

int main(int argc, char** argv) {
  using namespace bench::product;
  add<bench::limit::W1>("W1", bench::w1Source(1), readersOf(readW1, readW1ByReference, readW1ByView, readW1));
  add<bench::limit::W2>("W2", bench::w2Source(1), readersOf(readW2, readW2ByReference, readW2ByView, readW2));
  add<bench::limit::W3>("W3", bench::w3Source(), readersOf(readW3, readW3ByReference, readW3ByView, readW3));
  for (const unsigned int fields : {10U, 100U, 1000U, 5000U}) addFlat(fields);
  for (const bench::Peer* peer : bench::peers()) bench::notePeer(peer->name(), peer->version());
  return bench::run(argc, argv);
}
