// bench_grpc: the synchronous C++ API over "unix:", with unary calls, and a client's stream for what is not
// answered one by one. All calling threads share one channel. The router is a server that calls the other
// server for each call that it gets. All options are the library's defaults: larger frames, larger reads and
// no probing of the bandwidth make no difference that is larger than those between runs.

#include <grpcpp/grpcpp.h>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>

#include "Counter.h"
#include "Echo.grpc.pb.h"
#include "Peer.h"
#include "Roles.h"

namespace bench::grpc {
namespace {

using ::grpc::Status;
using Stub = std::unique_ptr<Echo::Stub>;

std::string Address(const std::string& endpoint) {
  return "unix:" + endpoint;
}

Stub Connect(const std::string& endpoint) {
  return Echo::NewStub(::grpc::CreateChannel(Address(endpoint), ::grpc::InsecureChannelCredentials()));
}

void Check(const Status& status) {
  if (!status.ok()) throw std::runtime_error("a call failed: " + status.error_message());
}

class UnaryCaller : public Caller {
 public:
  explicit UnaryCaller(Echo::Stub& stub) : stub_(stub) {}
  std::size_t Call(const std::string& body) override {
    ::grpc::ClientContext context;
    Body request;
    Body answer;
    request.set_data(body);
    Check(stub_.Call(&context, request, &answer));
    return answer.data().size();
  }

 private:
  Echo::Stub& stub_;
};

class GrpcRoute : public Route {
 public:
  GrpcRoute(const std::string& name, bool routed)
      : processes_(name, routed), stub_(Connect(processes_.endpoint())) {}
  std::unique_ptr<Caller> NewCaller() override { return std::make_unique<UnaryCaller>(*stub_); }
  void SendOneWay(const std::string& body, std::size_t count) override {
    ::grpc::ClientContext context;
    Body message;
    Body nothing;
    message.set_data(body);
    const auto stream = stub_->Take(&context, &nothing);
    for (std::size_t i = 0; i < count; ++i) {
      if (!stream->Write(message)) throw std::runtime_error("a stream was broken");
    }
    stream->WritesDone();
    Check(stream->Finish());
  }
  Child& server() override { return processes_.server(); }

 private:
  Processes processes_;
  const Stub stub_;
};

class EchoService : public Echo::Service {
 public:
  explicit EchoService(Counter& counter) : counter_(counter) {}
  Status Call(::grpc::ServerContext*, const Body* request, Body* answer) override {
    answer->set_data(request->data());
    return Status::OK;
  }
  Status Take(::grpc::ServerContext*, ::grpc::ServerReader<Body>* stream, Body*) override {
    for (Body message; stream->Read(&message);) counter_.Count();
    return Status::OK;
  }

 private:
  Counter& counter_;
};

class ForwardingService : public Echo::Service {
 public:
  explicit ForwardingService(const std::string& behind) : stub_(Connect(behind)) {}
  Status Call(::grpc::ServerContext*, const Body* request, Body* answer) override {
    ::grpc::ClientContext context;
    return stub_->Call(&context, *request, answer);
  }
  Status Take(::grpc::ServerContext*, ::grpc::ServerReader<Body>* stream, Body* answer) override {
    ::grpc::ClientContext context;
    const auto onward = stub_->Take(&context, answer);
    for (Body message; stream->Read(&message);) {
      if (!onward->Write(message)) break;
    }
    onward->WritesDone();
    return onward->Finish();
  }

 private:
  const Stub stub_;
};

// `counter` counts what `service` takes.
void ServeWith(Echo::Service& service, const std::string& endpoint, Counter& counter) {
  ::grpc::ServerBuilder builder;
  builder.AddListeningPort(Address(endpoint), ::grpc::InsecureServerCredentials());
  builder.RegisterService(&service);
  const auto server = builder.BuildAndStart();
  if (!server) throw std::runtime_error("no server");
  Serve(counter);
  // Without a wait for streams that nobody ends any more.
  std::_Exit(0);
}

void RunServer(const std::string& endpoint, const std::string&) {
  Counter counter;
  EchoService service(counter);
  ServeWith(service, endpoint, counter);
}

void RunRouter(const std::string& endpoint, const std::string& behind) {
  Counter nothing;
  ForwardingService service(behind);
  ServeWith(service, endpoint, nothing);
}

}  // namespace
}  // namespace bench::grpc

int main(int argc, char** argv) {
  using bench::grpc::GrpcRoute;
  const bench::Amounts slow{1'000, 20, 10'000};
  const bench::Peer peer{
      "grpc",
      {{"direct", [](const std::string& name) { return std::make_unique<GrpcRoute>(name, false); }, slow},
       {"router", [](const std::string& name) { return std::make_unique<GrpcRoute>(name, true); }, slow}},
      {{"server", bench::grpc::RunServer}, {"router", bench::grpc::RunRouter}}};
  return bench::RunPeer(peer, argc, argv);
}
