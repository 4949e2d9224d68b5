// kestrova-cli mcp with the official MCP TypeScript client: handshake, ping, the tool list and
// every tool with good and bad arguments on a small library. Any schema rejection by the client
// is a failure. Usage: node mcp_client_test.mjs <path to kestrova-cli>
import assert from "node:assert/strict";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";

import { Client } from "@modelcontextprotocol/sdk/client/index.js";
import { StdioClientTransport } from "@modelcontextprotocol/sdk/client/stdio.js";

const cli = process.argv[2];

const [tabA, tabB] = ["AAAAAAAA-0000-4000-8000-000000000001", "AAAAAAAA-0000-4000-8000-000000000002"];
const [windowId, topicId] = ["11111111-1111-4111-8111-111111111111", "22222222-2222-4222-8222-222222222222"];
const nowIso = new Date(Math.floor(Date.now() / 1000) * 1000).toISOString().replace(".000Z", "Z");
const oldIso = "2020-01-01T00:00:00Z";

const folder = fs.mkdtempSync(path.join(os.tmpdir(), "kestrova-mcp-client-"));
const library = path.join(folder, "library.json");
fs.writeFileSync(library, JSON.stringify({
  version: 1,
  tabs: [
    { id: tabA, url: "https://example.org/a/b", title: "Gartenbau", domain: "example.org",
      savedAt: nowIso, windowId, windowIndex: 0, tabIndex: 0, text: "ä".repeat(5000),
      summary: "Über Gärten.", topicId, note: "", projectTags: [], tags: ["garten"],
      isDemo: false },
    { id: tabB, url: "https://www.zeit.de/x", title: "Alt", domain: "zeit.de", savedAt: oldIso,
      windowId, windowIndex: 0, tabIndex: 1, text: "", summary: "", note: "", projectTags: [],
      tags: [], isDemo: false },
  ],
  windows: [{ id: windowId, savedAt: oldIso, title: "Fenster 1", tabIds: [tabA, tabB] }],
  topics: [{ id: topicId, name: "Garten", color: "gruen", tabIds: [tabA], isUnsorted: false }],
  context: { folderPaths: [], freeText: "", hintsPerDay: 2, hintHour: 9 },
  hints: [], embeddings: {}, embedderKind: "", topicsByAI: false,
}));

let failures = 0;
let passes = 0;
const report = (name, error) => {
  failures += 1;
  console.log(`FAIL ${name}: ${error && error.stack ? error.stack : error}`);
};
async function check(name, body) {
  await body().then(() => { passes += 1; console.log(`ok   ${name}`); }, (e) => report(name, e));
}

function text(result) {
  assert.deepEqual(result.content.map((c) => c.type), ["text"]);
  return result.content[0].text;
}
const ok = (result) => (assert.equal(result.isError, false, text(result)), JSON.parse(text(result)));
const failed = (result, message) => assert.deepEqual([result.isError, text(result)], [true, message]);

const client = new Client({ name: "kestrova-integration", version: "1.0.0" });
const transport = new StdioClientTransport(
  { command: cli, args: ["mcp", "--library", library], stderr: "inherit" });

try {
  await client.connect(transport);
  const call = (name, args) => client.callTool({ name, arguments: args });

  await check("handshake", async () => {
    const info = client.getServerVersion();
    assert.equal(info.name, "kestrova");
    assert.equal(info.title, "Kestrova Tab-Bibliothek");
    assert.equal(info.version, "0.1.0");
    assert.deepEqual(client.getServerCapabilities(), { tools: { listChanged: false } });
    assert.match(client.getInstructions(), /^Durchsucht die gespeicherten Safari-Tabs/);
  });

  await check("ping, tools/list, list_topics, list_windows", async () => {
    assert.deepEqual(await client.ping(), {});
    assert.equal((await client.listTools()).tools.length, 7);
    assert.deepEqual(ok(await call("list_topics", {})), [{ id: topicId, name: "Garten", tabs: 1 }]);
    assert.deepEqual(ok(await call("list_windows", {})),
      [{ id: windowId, title: "Fenster 1", tabs: 2, savedAt: oldIso }]);
  });

  await check("get_tab", async () => {
    const result = await call("get_tab", { id: tabA.toLowerCase() });
    assert.match(text(result), /https:\\\/\\\/example\.org\\\/a\\\/b/);
    const tab = ok(result);
    assert.deepEqual([tab.id, tab.topic, tab.window, tab.read], [tabA, "Garten", "Fenster 1", false]);
    assert.equal(tab.text, "ä".repeat(4000));
    failed(await call("get_tab", { id: "nicht-da" }), "Tab nicht gefunden");
    failed(await call("get_tab", {}), "Tab nicht gefunden");
  });

  await check("add_note", async () => {
    assert.equal(ok(await call("add_note", { id: tabB, note: "Später lesen" })).note,
      "Später lesen");
    const saved = JSON.parse(fs.readFileSync(library, "utf8"));
    assert.equal(saved.tabs[1].note, "Später lesen");
    failed(await call("add_note", { id: tabB }), "id oder note fehlt");
    failed(await call("add_note", { id: "BBBBBBBB-0000-4000-8000-000000000009", note: "x" }),
      "id oder note fehlt");
    assert.equal("note" in ok(await call("add_note", { id: tabB, note: "" })), false);
  });

  await check("set_reminder", async () => {
    assert.equal(ok(await call("set_reminder",
      { id: tabA, iso_date: "2026-10-09T09:00:00+02:00" })).reminderAt, "2026-10-09T07:00:00Z");
    failed(await call("set_reminder", { id: tabA, iso_date: "morgen" }),
      "id oder iso_date fehlt oder ungültig");
    failed(await call("set_reminder", { id: tabA }), "id oder iso_date fehlt oder ungültig");
  });

  await check("recent_tabs", async () => {
    assert.deepEqual(ok(await call("recent_tabs", {})).map((t) => t.id), [tabA]);
    assert.deepEqual(ok(await call("recent_tabs", { days: 100000 })).map((t) => t.id),
      [tabA, tabB]);
    assert.deepEqual(ok(await call("recent_tabs", { days: "viele" })).map((t) => t.id), [tabA]);
  });

  await check("search_tabs", async () => {
    const hits = ok(await call("search_tabs", { query: "Gartenbau", limit: 1 }));
    assert.deepEqual(hits.map((h) => h.id), [tabA]);
    assert.equal(Math.round(hits[0].score * 1000) / 1000, hits[0].score);
    failed(await call("search_tabs", {}), "query fehlt");
    failed(await call("gibt_es_nicht", {}), "Unbekanntes Werkzeug: gibt_es_nicht");
  });
} catch (error) {
  report("client", error);
} finally {
  await client.close().catch(() => {});
  fs.rmSync(folder, { recursive: true, force: true });
}

console.log(`${passes} passed, ${failures} failed`);
process.exit(failures === 0 ? 0 : 1);
