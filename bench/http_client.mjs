// A client that costs little: one message a time over a plain socket, which is kept as long as the
// server keeps it.
import net from 'node:net';

const HEAD_END = '\r\n\r\n';
const LAST_CHUNK = '0\r\n\r\n';
// On a busy machine the worker of a call may end after its reply has come; a client asks again.
const BUSY = '"code":-32000';

/** Whether the whole body is there: by its length, by its last chunk, or because there is none. */
function isWhole({ head, body }) {
  if (/^transfer-encoding: chunked\r$/im.test(head)) return body.endsWith(LAST_CHUNK);
  return body.length >= Number(/^content-length: (\d+)\r$/im.exec(head)?.[1] ?? 0);
}

export class HttpClient {
  #port;
  #headers;
  #socket = null;
  #session = '';
  #lastId = 0;
  /** Requests that came while the call before was not over, and were sent again. */
  busyReplies = 0;

  constructor(port, token) {
    this.#port = port;
    this.#headers =
      `POST /mcp HTTP/1.1\r\nHost: localhost:${port}\r\nAuthorization: Bearer ${token}\r\n` +
      'Content-Type: application/json\r\nAccept: application/json, text/event-stream\r\n';
  }

  /** A server without sessions gives no id, and none is sent. */
  async open() {
    this.#session = '';
    const answer = await this.ask('initialize', {
      protocolVersion: '2025-06-18',
      capabilities: {},
      clientInfo: { name: 'bench', version: '1' },
    });
    const id = /^mcp-session-id: (.*)\r$/im.exec(answer.head)?.[1];
    this.#session = id === undefined ? '' : `Mcp-Session-Id: ${id}\r\n`;
    await this.#exchange('{"jsonrpc":"2.0","method":"notifications/initialized"}', 'POST');
  }

  async close() {
    if (this.#session !== '') await this.#exchange('', 'DELETE');
    this.#socket?.destroy();
    this.#socket = null;
  }

  /** Resolves with the response to a request; anything but a good result is an error. */
  async ask(method, params) {
    this.#lastId += 1;
    const message = { jsonrpc: '2.0', id: this.#lastId, method, params };
    const answer = await this.#exchange(JSON.stringify(message), 'POST');
    if (answer.body.includes(BUSY)) {
      this.busyReplies += 1;
      return this.ask(method, params);
    }
    if (!answer.body.includes('"result"') || answer.body.includes('"isError":true')) {
      throw new Error(answer.head + answer.body);
    }
    return answer;
  }

  #exchange(body, method) {
    const head = method === 'POST' ? this.#headers : this.#headers.replace('POST', method);
    const request = `${head}${this.#session}Content-Length: ${body.length}${HEAD_END}${body}`;
    return new Promise((resolve, reject) => {
      let received = '';
      this.#socket ??= net.connect({ port: this.#port, host: '127.0.0.1', noDelay: true });
      const socket = this.#socket;
      socket.setEncoding('latin1');
      const finish = (settle, value) => {
        socket.removeAllListeners();
        settle(value);
      };
      socket.on('error', (error) => finish(reject, error));
      socket.on('end', () => finish(reject, new Error(`ended early: ${received}`)));
      socket.on('data', (data) => {
        received += data;
        const end = received.indexOf(HEAD_END);
        if (end < 0) return;
        const answer = {
          head: received.slice(0, end + 2),
          body: received.slice(end + HEAD_END.length),
        };
        if (!isWhole(answer)) return;
        if (/^connection: close\r$/im.test(answer.head)) {
          socket.destroy();
          this.#socket = null;
        }
        finish(resolve, answer);
      });
      socket.write(request, 'latin1');
    });
  }
}
