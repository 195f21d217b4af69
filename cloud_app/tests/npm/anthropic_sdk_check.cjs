// Sends requests through the official `@anthropic-ai/sdk` and prints what the SDK made of each answer.
// The argument is one case or a list of cases, run in order; the output is a JSON list of results.
// Usage: node anthropic_sdk_check.cjs '{"nodeModules": ..., "baseURL": ..., "apiKey": ..., "stream": bool,
//         "tools": bool, "maxRetries": n, "timeoutMs": n}'
// The SDK is loaded from the installed peers folder, which is outside the source tree.
'use strict';
const path = require('path');
const { createRequire } = require('module');

const TOOL_NAME = 'get_weather';

function load(nodeModules) {
  const module = createRequire(path.join(nodeModules, 'index.js'))('@anthropic-ai/sdk');
  return module.default || module.Anthropic || module;
}

async function run(Anthropic, options) {
  const client = new Anthropic({ baseURL: options.baseURL, apiKey: options.apiKey, maxRetries: options.maxRetries ?? 0, timeout: options.timeoutMs ?? 10000 });
  const request = { model: 'fake-model', max_tokens: 256, messages: [{ role: 'user', content: 'Say hello' }] };
  if (options.tools) {
    request.tools = [{ name: TOOL_NAME, input_schema: { type: 'object', properties: { city: { type: 'string' } } } }];
  }
  try {
    const message = options.stream ? await client.messages.stream(request).finalMessage() : await client.messages.create(request);
    return {
      ok: true,
      id: message.id,
      text: message.content.filter((block) => block.type === 'text').map((block) => block.text).join(''),
      finishReason: message.stop_reason,
      toolCalls: message.content.filter((block) => block.type === 'tool_use').map((block) => ({ id: block.id, name: block.name, arguments: block.input })),
      usage: { input: message.usage.input_tokens, output: message.usage.output_tokens },
    };
  } catch (error) {
    return { ok: false, errorClass: error.constructor.name, status: error.status ?? null, message: String(error.message) };
  }
}

async function main() {
  const argument = JSON.parse(process.argv[2]);
  const cases = Array.isArray(argument) ? argument : [argument];
  const Anthropic = load(cases[0].nodeModules);
  const results = [];
  for (const options of cases) results.push(await run(Anthropic, options));
  console.log(JSON.stringify(results));
}

main();
