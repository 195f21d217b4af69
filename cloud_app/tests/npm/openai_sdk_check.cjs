// Sends requests through the official `openai` SDK and prints what the SDK made of each answer.
// The argument is one case or a list of cases, run in order; the output is a JSON list of results.
// Usage: node openai_sdk_check.cjs '{"nodeModules": ..., "baseURL": ..., "apiKey": ..., "api": "chat"|"responses",
//         "stream": bool, "tools": bool, "maxRetries": n, "timeoutMs": n}'
// The SDK is loaded from the installed peers folder, which is outside the source tree.
'use strict';
const path = require('path');
const { createRequire } = require('module');

const TOOL_NAME = 'get_weather';

function load(nodeModules) {
  return createRequire(path.join(nodeModules, 'index.js'))('openai');
}

function chatTools(wanted) {
  if (!wanted) return undefined;
  return [{ type: 'function', function: { name: TOOL_NAME, parameters: { type: 'object', properties: { city: { type: 'string' } } } } }];
}

function responsesTools(wanted) {
  if (!wanted) return undefined;
  return [{ type: 'function', name: TOOL_NAME, parameters: { type: 'object', properties: { city: { type: 'string' } } }, strict: false }];
}

async function chat(client, options) {
  const request = { model: 'fake-model', messages: [{ role: 'user', content: 'Say hello' }], tools: chatTools(options.tools) };
  let completion;
  if (options.stream) {
    const stream = client.chat.completions.stream({ ...request, stream_options: { include_usage: true } });
    completion = await stream.finalChatCompletion();
  } else {
    completion = await client.chat.completions.create(request);
  }
  const message = completion.choices[0].message;
  return {
    id: completion.id,
    text: message.content || '',
    finishReason: completion.choices[0].finish_reason,
    toolCalls: (message.tool_calls || []).map((call) => ({ id: call.id, name: call.function.name, arguments: JSON.parse(call.function.arguments) })),
    usage: completion.usage ? { input: completion.usage.prompt_tokens, output: completion.usage.completion_tokens, total: completion.usage.total_tokens } : null,
  };
}

async function responses(client, options) {
  const request = { model: 'fake-model', input: 'Say hello', tools: responsesTools(options.tools) };
  let response;
  if (options.stream) {
    const stream = client.responses.stream(request);
    response = await stream.finalResponse();
  } else {
    response = await client.responses.create(request);
  }
  return {
    id: response.id,
    text: response.output_text,
    finishReason: response.status,
    toolCalls: response.output.filter((item) => item.type === 'function_call').map((item) => ({ id: item.call_id, name: item.name, arguments: JSON.parse(item.arguments) })),
    usage: response.usage ? { input: response.usage.input_tokens, output: response.usage.output_tokens, total: response.usage.total_tokens } : null,
  };
}

async function run(OpenAI, options) {
  const client = new OpenAI({ baseURL: options.baseURL, apiKey: options.apiKey, maxRetries: options.maxRetries ?? 0, timeout: options.timeoutMs ?? 10000 });
  try {
    const result = options.api === 'responses' ? await responses(client, options) : await chat(client, options);
    return { ok: true, ...result };
  } catch (error) {
    return { ok: false, errorClass: error.constructor.name, status: error.status ?? null, message: String(error.message) };
  }
}

async function main() {
  const argument = JSON.parse(process.argv[2]);
  const cases = Array.isArray(argument) ? argument : [argument];
  const OpenAI = load(cases[0].nodeModules);
  const results = [];
  for (const options of cases) results.push(await run(OpenAI, options));
  console.log(JSON.stringify(results));
}

main();
