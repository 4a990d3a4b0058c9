// The approval page: plain HTML, CSS and a little JavaScript, served by the gateway itself.
// Everything a call carries (tool name, arguments, server command...) comes from an agent or
// a server and is shown with textContent only, never parsed as HTML. The token comes from the
// address's fragment (#token=...), which browsers never send, and travels in the
// Authorization header of the page's own requests.

#include "sentrova-dev-gateway/DevGatewayServer.hpp"

namespace sentrova {

std::string_view devGatewayPageHTML() {
    return R"HTML(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="referrer" content="no-referrer">
<title>Sentrova approvals</title>
<link rel="stylesheet" href="/page.css">
</head>
<body>
<header>
<h1>Sentrova approvals</h1>
<p id="status" role="status">Connecting&hellip;</p>
</header>
<main id="calls" aria-live="polite"></main>
<script src="/page.js"></script>
</body>
</html>
)HTML";
}

std::string_view devGatewayPageScript() {
    return R"JS('use strict';
const token = new URLSearchParams(location.hash.slice(1)).get('token');
const statusLine = document.getElementById('status');
const list = document.getElementById('calls');
let version = 0;

function say(text, problem = false) {
  statusLine.textContent = text;
  statusLine.className = problem ? 'problem' : '';
}

// Builds an element whose text is set as text: nothing from a call is ever read as HTML.
function element(tag, className, text) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined) node.textContent = String(text);
  return node;
}

function pretty(argumentsJSON) {
  try {
    return JSON.stringify(JSON.parse(argumentsJSON), null, 2);
  } catch {
    return argumentsJSON;
  }
}

function api(path, options = {}) {
  return fetch(path, {
    ...options,
    cache: 'no-store',
    headers: { Authorization: `Bearer ${token}`, ...(options.headers ?? {}) },
  });
}

async function answer(id, decision, reason, card) {
  for (const button of card.querySelectorAll('button')) button.disabled = true;
  try {
    const response = await api('/v1/answer', {
      method: 'POST',
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify({ id, decision, reason }),
    });
    if (response.status === 404) {
      card.remove();
      say('That call had already ended (answered elsewhere, timed out or cancelled).');
    } else if (!response.ok) {
      throw new Error(`HTTP ${response.status}`);
    }
  } catch (error) {
    say(`The answer could not be sent (${error.message}).`, true);
    for (const button of card.querySelectorAll('button')) button.disabled = false;
  }
}

function card(call) {
  const node = element('section', 'call');
  node.dataset.id = call.id;
  const title = element('h2');
  title.append(element('span', 'tool', call.tool), element('span', `risk risk-${call.risk}`, call.risk || 'no risk given'));
  const facts = element('dl');
  const fact = (name, value) => facts.append(element('dt', '', name), element('dd', '', value));
  fact('Worker', call.workerName);
  if (call.provider) fact('Provider', call.provider);
  fact('Server', call.serverCommand);
  fact('Asked at', call.receivedAt);
  fact('Denied unless answered by', call.deadline);
  if (call.note) fact('Rule says', call.note);
  node.append(title, facts);
  const oldPin = call.pinChanged ? call.previousPinHash : call.rememberedPinHash;
  if (oldPin !== undefined) {
    const pins = element('div', 'pins');
    pins.append(element('p', '', "The tool's definition changed since it was last allowed."));
    const pinFacts = element('dl');
    pinFacts.append(element('dt', '', 'Old pin'), element('dd', 'pin', oldPin || '(none)'));
    pinFacts.append(element('dt', '', 'New pin'), element('dd', 'pin', call.pinHash || '(none)'));
    pins.append(pinFacts);
    node.append(pins);
  }
  node.append(element('h3', '', 'Arguments'), element('pre', 'arguments', pretty(call.argumentsJSON)));
  const reason = element('input', 'reason');
  reason.type = 'text';
  reason.placeholder = 'Reason (optional; the agent reads it after a deny)';
  reason.setAttribute('aria-label', 'Reason');
  const allow = element('button', 'allow', 'Allow');
  const deny = element('button', 'deny', 'Deny');
  allow.addEventListener('click', () => answer(call.id, 'allow', reason.value, node));
  deny.addEventListener('click', () => answer(call.id, 'deny', reason.value, node));
  const actions = element('div', 'actions');
  actions.append(reason, allow, deny);
  node.append(actions);
  return node;
}

// Adds new calls and removes ended ones, leaving the others (and a reason being typed) alone.
function update(pending) {
  const ids = new Set(pending.map((call) => call.id));
  for (const node of list.querySelectorAll('section.call')) {
    if (!ids.has(node.dataset.id)) node.remove();
  }
  const shown = new Set([...list.querySelectorAll('section.call')].map((node) => node.dataset.id));
  for (const call of pending) {
    if (!shown.has(call.id)) list.append(card(call));
  }
  list.querySelector('p.empty')?.remove();
  if (pending.length === 0) list.append(element('p', 'empty', 'No calls are waiting for approval.'));
  say(pending.length === 0 ? 'Connected. New calls appear here as they arrive.'
    : `${pending.length} call${pending.length === 1 ? '' : 's'} waiting for an answer.`);
}

async function watch() {
  if (!token) {
    say('This address carries no token. Open the address that sentrova-dev-gateway printed at start (it ends in #token=...).', true);
    return;
  }
  for (;;) {
    try {
      const response = await api(`/v1/pending?since=${version}`);
      if (response.status === 401) {
        say("The token in this address is not the gateway's. Open the address it printed at start.", true);
        return;
      }
      if (!response.ok) throw new Error(`HTTP ${response.status}`);
      const body = await response.json();
      version = body.version;
      update(body.pending);
    } catch (error) {
      say(`The gateway cannot be reached (${error.message}); trying again...`, true);
      await new Promise((resolve) => setTimeout(resolve, 2000));
    }
  }
}

watch();
)JS";
}

std::string_view devGatewayPageStyle() {
    return R"CSS(:root { color-scheme: light dark; font-family: system-ui, sans-serif; }
body { margin: 0 auto; max-width: 60rem; padding: 1rem; }
h1 { font-size: 1.4rem; margin: 0 0 .3rem; }
#status { margin: 0 0 1rem; color: #555; }
#status.problem { color: #b00020; font-weight: 600; }
.empty { padding: 2rem; text-align: center; border: 1px dashed #999; border-radius: .5rem; }
.call { border: 1px solid #999; border-radius: .5rem; padding: .8rem 1rem; margin-bottom: 1rem; }
.call h2 { font-size: 1.15rem; margin: 0 0 .5rem; display: flex; gap: .6rem; align-items: center; }
.tool { font-family: ui-monospace, monospace; overflow-wrap: anywhere; }
.risk { font-size: .8rem; padding: .1rem .5rem; border-radius: 1rem; background: #ddd; color: #222; }
.risk-safe { background: #c8e6c9; }
.risk-caution { background: #ffe0a3; }
.risk-critical { background: #ffb4a9; }
dl { display: grid; grid-template-columns: max-content 1fr; gap: .2rem .8rem; margin: .3rem 0; }
dt { color: #666; }
dd { margin: 0; overflow-wrap: anywhere; }
.pins { border-left: 4px solid #e65100; padding-left: .6rem; margin: .5rem 0; }
.pin { font-family: ui-monospace, monospace; font-size: .85rem; }
h3 { font-size: .95rem; margin: .6rem 0 .2rem; }
.arguments { background: rgba(127,127,127,.12); padding: .5rem; border-radius: .3rem; max-height: 20rem;
  overflow: auto; white-space: pre-wrap; overflow-wrap: anywhere; margin: 0; }
.actions { display: flex; gap: .5rem; margin-top: .6rem; }
.reason { flex: 1; padding: .4rem; }
button { padding: .4rem 1.2rem; font-weight: 600; border-radius: .3rem; border: 1px solid #666; cursor: pointer; }
button.allow { background: #2e7d32; color: #fff; }
button.deny { background: #c62828; color: #fff; }
button:disabled { opacity: .5; cursor: default; }
)CSS";
}

} // namespace sentrova
