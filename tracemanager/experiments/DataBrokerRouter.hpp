// DataBrokerRouter: the data broker of the trace server.
//
// Routes the topic "vsktrace/file" to the file `path`/`name` of its JSON
// header; every other topic gets the do-nothing behaviour of the base. A
// file that cannot be read answers "{}" from readText, so experiments can
// always parse the answer as an object; write errors are not reported, and
// the router creates no directory.
//
// Beside the topics it holds `etbRecords`, the decoded ETB records that the
// ETB decoder writes and the ETB tables read (one store per router, so one
// ETB capture has rows at a time).
//
// Threads: the file operations keep no state and may run on any thread; the
// store guards itself. Errors: a header that is not JSON throws the parser's
// exception; `path` or `name` missing or not a string throws type error 302.
#pragma once

#include "experiments/DataBroker.hpp"
#include "experiments/EtbRecordStore.hpp"

namespace VSKTspServer {

class DataBrokerRouter : public DataBroker {
 public:
  void writeData(std::string topic, std::string header, const uint8_t* bytes,
                 size_t length) override;
  BrokerBytes readData(std::string topic, std::string header) override;
  void writeText(std::string topic, std::string header, std::string text) override;
  std::string readText(std::string topic, std::string header) override;

  EtbRecordStore etbRecords;
};

}  // namespace VSKTspServer
