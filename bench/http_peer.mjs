// What the HTTP listener is measured against: the Streamable HTTP server that a user would write
// with the official SDK, with one tool that returns text from memory. Prints its port.
import { randomUUID } from 'node:crypto';
import { createServer } from 'node:http';

const sdk = '../tests/interop/node_modules/@modelcontextprotocol/sdk/dist/esm/server';
const { McpServer } = await import(`${sdk}/mcp.js`);
const { StreamableHTTPServerTransport } = await import(`${sdk}/streamableHttp.js`);

const token = `Bearer ${process.env.KOVA_MCP_HTTP_BEARER_TOKEN}`;
const tables = {
  status: 'policy-filtered',
  columns: ['NAME'],
  rows: [['ITEMS'], ['ORDERS'], ['CUSTOMERS']],
  rowCount: 3,
  truncated: false,
};
const transports = new Map();

async function openSession() {
  const server = new McpServer({ name: 'peer', version: '1' });
  server.registerTool('kova_list_tables', { description: 'List the tables.' }, async () => ({
    content: [{ type: 'text', text: JSON.stringify(tables) }],
    structuredContent: tables,
  }));
  const transport = new StreamableHTTPServerTransport({
    sessionIdGenerator: randomUUID,
    enableJsonResponse: true,
    onsessioninitialized: (id) => transports.set(id, transport),
    onsessionclosed: (id) => transports.delete(id),
  });
  await server.connect(transport);
  return transport;
}

const listener = createServer(async (request, response) => {
  if (request.headers.authorization !== token) {
    response.writeHead(401).end();
    return;
  }
  const transport = transports.get(request.headers['mcp-session-id']) ?? (await openSession());
  await transport.handleRequest(request, response);
});
listener.listen(0, '127.0.0.1', () => process.stdout.write(`${listener.address().port}\n`));
