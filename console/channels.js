// The channel client of the console: the JSON codec on the host's own
// WebSocket, calls paired with replies by id, events from the host to the
// handlers of their channel, and a new connection after every loss.
"use strict";

class ChannelError extends Error {
  constructor(channel, method, code, message) {
    super(`${channel} ${method}: ${message || code} (${code})`);
    this.code = code;
  }
}

// Rejected calls of a channel or method the host does not serve.
class NotImplemented extends Error {
  constructor(channel, method) {
    super(`${channel} ${method}: not available in this Kavlen`);
  }
}

class Channels {
  constructor(url) {
    this.url = url;
    this.nextId = 1;
    this.pending = new Map();
    this.handlers = new Map();
    this.onState = () => {};
    this.onOpen = () => {};
    this.delay = 500;
    this.connect();
  }

  connect() {
    const ws = new WebSocket(this.url);
    this.ws = ws;
    ws.onopen = () => {
      this.delay = 500;
      this.onState(true);
      this.onOpen();
    };
    ws.onmessage = (e) => this.receive(e.data);
    ws.onclose = () => {
      if (this.ws !== ws) return;
      this.ws = null;
      for (const p of this.pending.values()) p.reject(new Error(`${p.channel} ${p.method}: connection lost`));
      this.pending.clear();
      this.onState(false);
      setTimeout(() => this.connect(), this.delay);
      this.delay = Math.min(this.delay * 2, 4000);
    };
    ws.onerror = () => {};  // onclose follows and reconnects
  }

  get connected() { return this.ws && this.ws.readyState === WebSocket.OPEN; }

  receive(text) {
    let m;
    try { m = JSON.parse(text); } catch (e) { return; }
    if (m.kind === "reply") {
      const p = this.pending.get(m.id);
      if (!p) return;
      this.pending.delete(m.id);
      if (m.reply === null) p.reject(new NotImplemented(p.channel, p.method));
      else if (m.reply.length === 1) p.resolve(m.reply[0]);
      else p.reject(new ChannelError(p.channel, p.method, m.reply[0], m.reply[1]));
    } else if (m.kind === "call") {
      const h = this.handlers.get(m.channel);
      if (h) h(m.method, m.args === undefined ? null : m.args);
    }
  }

  call(channel, method, args) {
    if (!this.connected) return Promise.reject(new Error(`${channel} ${method}: not connected`));
    const id = this.nextId++;
    const msg = { kind: "call", channel, id, method };
    if (args !== undefined) msg.args = args;
    return new Promise((resolve, reject) => {
      this.pending.set(id, { resolve, reject, channel, method });
      this.ws.send(JSON.stringify(msg));
    });
  }

  // Events the host sends on one channel: handler(method, args).
  on(channel, handler) { this.handlers.set(channel, handler); }
}
