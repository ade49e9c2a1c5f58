// What the server is measured against: the one that a user would write with the official SDK.
//
//     node sdk_server.mjs MODULES http PORT [DATABASE]
//     node sdk_server.mjs MODULES stdio [DATABASE]
//
// MODULES is the folder node_modules with the SDK. One tool returns text from memory; with an
// SQLite file there is another that runs a statement on it, in this process (Node.js from 22.5 on).
import { randomUUID } from 'node:crypto';
import { createServer } from 'node:http';
import path from 'node:path';

const [modules, transport, ...rest] = process.argv.slice(2);
const load = (name) => import(path.resolve(modules, name));
const sdk = '@modelcontextprotocol/sdk/dist/esm/server';
const { McpServer } = await load(`${sdk}/mcp.js`);

const tables = {
  status: 'policy-filtered',
  columns: ['NAME'],
  rows: [['ITEMS'], ['ORDERS'], ['CUSTOMERS']],
  rowCount: 3,
  truncated: false,
};

function result(value) {
  return { content: [{ type: 'text', text: JSON.stringify(value) }], structuredContent: value };
}

async function queryTool(file) {
  const { DatabaseSync } = await import('node:sqlite');
  const { z } = await load('zod/index.js');
  const database = new DatabaseSync(file, { readOnly: true });
  const about = { description: 'Run a SELECT.', inputSchema: { sql: z.string() } };
  return (server) =>
    server.registerTool('query', about, async ({ sql }) => {
      const rows = database.prepare(sql).all();
      return result({ columns: Object.keys(rows[0] ?? {}), rows: rows.map(Object.values) });
    });
}

const addQuery = rest.at(-1)?.endsWith('.db') ? await queryTool(rest.at(-1)) : () => {};

function makeServer() {
  const server = new McpServer({ name: 'sdk', version: '1' });
  server.registerTool('kova_list_tables', { description: 'List the tables.' }, async () =>
    result(tables),
  );
  addQuery(server);
  return server;
}

async function serveHttp(port) {
  const { StreamableHTTPServerTransport } = await load(`${sdk}/streamableHttp.js`);
  const token = `Bearer ${process.env.KOVA_MCP_HTTP_BEARER_TOKEN}`;
  const sessions = new Map();
  const openSession = async () => {
    const opened = new StreamableHTTPServerTransport({
      sessionIdGenerator: randomUUID,
      enableJsonResponse: true,
      onsessioninitialized: (id) => sessions.set(id, opened),
      onsessionclosed: (id) => sessions.delete(id),
    });
    await makeServer().connect(opened);
    return opened;
  };
  const listener = createServer(async (request, response) => {
    if (request.headers.authorization !== token) {
      response.writeHead(401).end();
      return;
    }
    const session = sessions.get(request.headers['mcp-session-id']) ?? (await openSession());
    await session.handleRequest(request, response);
  });
  listener.listen(port, '127.0.0.1');
}

if (transport === 'http') {
  await serveHttp(Number(rest[0]));
} else {
  const { StdioServerTransport } = await load(`${sdk}/stdio.js`);
  await makeServer().connect(new StdioServerTransport());
}
