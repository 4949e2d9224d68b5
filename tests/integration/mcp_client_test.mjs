// kestrova-cli mcp with the official MCP TypeScript client: handshake, ping, the tool list and
// every tool on a small library. Any schema rejection by the client is a failure.
// Usage: node mcp_client_test.mjs <path to kestrova-cli>
import assert from "node:assert/strict";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";

import { Client } from "@modelcontextprotocol/sdk/client/index.js";
import { StdioClientTransport } from "@modelcontextprotocol/sdk/client/stdio.js";

const [tabA, tabB] = ["AAAAAAAA-0000-4000-8000-000000000001", "AAAAAAAA-0000-4000-8000-000000000002"];
const [windowId, topicId] = ["11111111-1111-4111-8111-111111111111", "22222222-2222-4222-8222-222222222222"];
const nowIso = new Date(Math.floor(Date.now() / 1000) * 1000).toISOString().replace(".000Z", "Z");
const oldIso = "2020-01-01T00:00:00Z";
const tab = (id, url, title, savedAt, more) => ({ id, url, title, domain: new URL(url).hostname,
  savedAt, windowId, windowIndex: 0, tabIndex: 0, text: "", summary: "", note: "", projectTags: [],
  tags: [], isDemo: false, ...more });

const folder = fs.mkdtempSync(path.join(os.tmpdir(), "kestrova-mcp-client-"));
const library = path.join(folder, "library.json");
fs.writeFileSync(library, JSON.stringify({
  version: 1,
  tabs: [tab(tabA, "https://example.org/a/b", "Gartenbau", nowIso, { text: "ä".repeat(5000), topicId }),
    tab(tabB, "https://zeit.de/x", "Alt", oldIso, { tabIndex: 1 })],
  windows: [{ id: windowId, savedAt: oldIso, title: "Fenster 1", tabIds: [tabA, tabB] }],
  topics: [{ id: topicId, name: "Garten", color: "gruen", tabIds: [tabA], isUnsorted: false }],
  context: { folderPaths: [], freeText: "", hintsPerDay: 2, hintHour: 9 },
  hints: [], embeddings: {}, embedderKind: "", topicsByAI: false,
}));

function text(result) {
  assert.deepEqual(result.content.map((c) => c.type), ["text"]);
  return result.content[0].text;
}
const ok = (result) => (assert.equal(result.isError, false, text(result)), JSON.parse(text(result)));
const failed = (result, message) => assert.deepEqual([result.isError, text(result)], [true, message]);

const client = new Client({ name: "kestrova-integration", version: "1.0.0" });
const transport = new StdioClientTransport(
  { command: process.argv[2], args: ["mcp", "--library", library], stderr: "inherit" });
try {
  await client.connect(transport);
  const call = (name, args) => client.callTool({ name, arguments: args });

  // Handshake, ping, tools/list, list_topics, list_windows.
  assert.deepEqual(client.getServerVersion(),
    { name: "kestrova", title: "Kestrova Tab-Bibliothek", version: "0.1.0" });
  assert.deepEqual(client.getServerCapabilities(), { tools: { listChanged: false } });
  assert.match(client.getInstructions(), /^Durchsucht die gespeicherten Safari-Tabs/);
  assert.deepEqual(await client.ping(), {});
  assert.equal((await client.listTools()).tools.length, 7);
  assert.deepEqual(ok(await call("list_topics", {})), [{ id: topicId, name: "Garten", tabs: 1 }]);
  assert.deepEqual(ok(await call("list_windows", {})),
    [{ id: windowId, title: "Fenster 1", tabs: 2, savedAt: oldIso }]);
  // get_tab (slashes escaped in the text, the text cut at 4000 characters), add_note, set_reminder.
  const result = await call("get_tab", { id: tabA.toLowerCase() });
  assert.match(text(result), /https:\\\/\\\/example\.org\\\/a\\\/b/);
  const got = ok(result);
  assert.deepEqual([got.id, got.topic, got.window, got.read], [tabA, "Garten", "Fenster 1", false]);
  assert.equal(got.text, "ä".repeat(4000));
  failed(await call("get_tab", {}), "Tab nicht gefunden");
  assert.equal(ok(await call("add_note", { id: tabB, note: "Später lesen" })).note, "Später lesen");
  assert.equal(JSON.parse(fs.readFileSync(library, "utf8")).tabs[1].note, "Später lesen");
  failed(await call("add_note", { id: tabB }), "id oder note fehlt");
  assert.equal(ok(await call("set_reminder",
    { id: tabA, iso_date: "2026-10-09T09:00:00+02:00" })).reminderAt, "2026-10-09T07:00:00Z");
  failed(await call("set_reminder", { id: tabA }), "id oder iso_date fehlt oder ungültig");
  // recent_tabs, search_tabs and an unknown tool.
  assert.deepEqual(ok(await call("recent_tabs", {})).map((t) => t.id), [tabA]);
  assert.deepEqual(ok(await call("recent_tabs", { days: 100000 })).map((t) => t.id), [tabA, tabB]);
  const hits = ok(await call("search_tabs", { query: "Gartenbau", limit: 1 }));
  assert.deepEqual(hits.map((h) => h.id), [tabA]);
  assert.equal(Math.round(hits[0].score * 1000) / 1000, hits[0].score);
  failed(await call("search_tabs", {}), "query fehlt");
  failed(await call("gibt_es_nicht", {}), "Unbekanntes Werkzeug: gibt_es_nicht");
  console.log("passed");
} catch (error) {
  console.log(`FAIL: ${error?.stack ?? error}`);
  process.exitCode = 1;
} finally {
  await client.close().catch(() => {});
  fs.rmSync(folder, { recursive: true, force: true });
}
