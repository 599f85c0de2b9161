// Reads an MCAP file with the official TypeScript reader and decodes messages with the ROS 2 CDR decoder
// from npm, so that our recordings are checked by code that no one here wrote. Prints one JSON document:
//   node check_mcap.mjs FILE          a complete file: summary, chunk indexes, every CRC, every message
//   node check_mcap.mjs FILE --scan   a file that may lack its end: the records up to the last whole one
import { readFileSync } from "node:fs";
import { McapIndexedReader, McapStreamReader } from "@mcap/core";
import { MessageReader } from "@foxglove/rosmsg2-serialization";
import { parse as parseMessageDefinition } from "@foxglove/rosmsg";
import { crc32 } from "@foxglove/crc";
import zstd from "@foxglove/wasm-zstd";
import lz4 from "@foxglove/wasm-lz4";

const [file, mode] = process.argv.slice(2);
const bytes = new Uint8Array(readFileSync(file));
await zstd.isLoaded;
await lz4.isLoaded;
const decompressHandlers = {
  zstd: (data, size) => zstd.decompress(data, Number(size)),
  lz4: (data, size) => lz4(data, Number(size)),
};

const decoders = new Map();
function decode(schema, data) {
  if (!decoders.has(schema.id)) {
    const text = new TextDecoder().decode(schema.data);
    decoders.set(schema.id, new MessageReader(parseMessageDefinition(text, { ros2: true })));
  }
  const m = decoders.get(schema.id).readMessage(data);
  return {
    width: m.width,
    height: m.height,
    encoding: m.encoding,
    step: m.step,
    dataLength: m.data.length,
    frameId: m.header.frame_id,
    stampSec: m.header.stamp.sec,
  };
}

const out = { complete: false, channels: {}, chunks: 0, metadata: [], messages: 0 };
// Per channel: message count, first decoded message, sequences in order and the gaps between them.
function count(channel, schema, message) {
  const c = (out.channels[channel.topic] ??= { count: 0, gaps: 0, outOfOrder: 0, metadata: channel.metadata });
  if (c.count === 0) c.first = { sequence: message.sequence, ...decode(schema, message.data) };
  else if (message.sequence > c.last + 1) c.gaps += message.sequence - c.last - 1;
  else if (message.sequence <= c.last) c.outOfOrder += 1;
  c.last = message.sequence;
  c.count += 1;
  out.messages += 1;
}

// The stream reader checks each chunk's CRC as it decompresses it; the data section's CRC is checked here.
const stream = new McapStreamReader({ decompressHandlers, validateCrcs: true, includeChunks: true });
stream.append(bytes);
const schemas = new Map();
const channels = new Map();
let dataEndCrc;
for (let record; (record = stream.nextRecord()); ) {
  switch (record.type) {
    case "Schema": schemas.set(record.id, record); break;
    case "Channel": channels.set(record.id, record); break;
    case "Chunk": out.chunks += 1; break;
    case "Metadata": out.metadata.push({ name: record.name, keys: [...record.metadata.keys()] }); break;
    case "Message": {
      const channel = channels.get(record.channelId);
      count(channel, schemas.get(channel.schemaId), record);
      break;
    }
    case "DataEnd": dataEndCrc = record.dataSectionCrc; break;
  }
}

if (mode !== "--scan") {
  // The indexed reader reads the footer, checks the summary CRC and seeks through the chunk index.
  const readable = { size: async () => BigInt(bytes.length), read: async (o, n) => bytes.subarray(Number(o), Number(o + n)) };
  const reader = await McapIndexedReader.Initialize({ readable, decompressHandlers });
  const summaryStart = Number(reader.footer.summaryStart);
  const dataEnd = summaryStart - 13;  // the data end record: opcode, length, CRC
  out.dataCrcOk = dataEndCrc !== undefined && (dataEndCrc === 0 || crc32(bytes.subarray(0, dataEnd)) === dataEndCrc);
  out.summary = {
    chunkIndexes: reader.chunkIndexes.length,
    messageCount: Number(reader.statistics.messageCount),
    channelCounts: Object.fromEntries([...reader.statistics.channelMessageCounts].map(([id, n]) => [reader.channelsById.get(id).topic, Number(n)])),
    metadataIndexes: reader.metadataIndexes.length,
  };
  let indexed = 0;
  for await (const _ of reader.readMessages({ validateCrcs: true })) indexed += 1;
  out.summary.indexedMessages = indexed;
  out.complete = true;
}
for (const c of Object.values(out.channels)) delete c.last;
out.channels = Object.fromEntries(Object.entries(out.channels));
process.stdout.write(JSON.stringify(out, (k, v) => (v instanceof Map ? Object.fromEntries(v) : v), 2) + "\n");
