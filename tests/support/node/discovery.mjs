// Lists, describes and shows the statistics of every "qv-av-control" instance on a server with
// the services framework's own JavaScript client, one line per fact:
//   ping <name> <id> <version>
//   info <id> <description>
//   endpoint <id> <name> <subject> <queue_group>
//   stats <id> <subject> <num_requests> <num_errors> <average_processing_time> <last_error>
// Usage: node discovery.mjs <nats-url>
import { connect } from "@nats-io/transport-node";
import { Svcm } from "@nats-io/services";

const nc = await connect({ servers: process.argv[2] });
const client = new Svcm(nc).client();
const out = [];
for await (const s of await client.ping()) {
  out.push(`ping ${s.name} ${s.id} ${s.version}`);
}
for await (const s of await client.info("qv-av-control")) {
  out.push(`info ${s.id} ${s.description}`);
  for (const e of s.endpoints) {
    out.push(`endpoint ${s.id} ${e.name} ${e.subject} ${e.queue_group}`);
  }
}
for await (const s of await client.stats("qv-av-control")) {
  for (const e of s.endpoints) {
    out.push(`stats ${s.id} ${e.subject} ${e.num_requests} ${e.num_errors} ` +
      `${e.average_processing_time} ${e.last_error}`);
  }
}
console.log(out.join("\n"));
await nc.close();
