// Sends requests through the official `openai` SDK and prints what the SDK made of each answer.
// Usage: node openai_sdk_check.cjs '[{"nodeModules": ..., "baseURL": ..., "apiKey": ...,
//         "api": "chat"|"responses", "stream": bool, "tools": bool, "maxRetries": n, "timeoutMs": n}, ...]'
// Streams go through the SDK's own stream helpers, which check the event sequence as they build the answer.
'use strict';
const { TOOL_NAME, TOOL_SCHEMA, loadPackage, clientOptions, runCases } = require('./sdk_check_common.cjs');

function usageOf(input, output, total) {
  return { input, output, total };
}

async function chat(client, options) {
  const request = { model: options.model ?? 'fake-model', messages: [{ role: 'user', content: 'Say hello' }] };
  if (options.tools) request.tools = [{ type: 'function', function: { name: TOOL_NAME, parameters: TOOL_SCHEMA } }];
  const streamed = { ...request, stream_options: { include_usage: true } };
  const completion = options.stream
    ? await client.chat.completions.stream(streamed).finalChatCompletion()
    : await client.chat.completions.create(request);
  const choice = completion.choices[0];
  const usage = completion.usage;
  return {
    id: completion.id,
    text: choice.message.content || '',
    finishReason: choice.finish_reason,
    toolCalls: (choice.message.tool_calls || []).map((call) => ({
      id: call.id, name: call.function.name, arguments: JSON.parse(call.function.arguments),
    })),
    usage: usage ? usageOf(usage.prompt_tokens, usage.completion_tokens, usage.total_tokens) : null,
  };
}

async function responses(client, options) {
  const request = { model: options.model ?? 'fake-model', input: 'Say hello' };
  if (options.tools) {
    request.tools = [{ type: 'function', name: TOOL_NAME, parameters: TOOL_SCHEMA, strict: false }];
  }
  const response = options.stream
    ? await client.responses.stream(request).finalResponse()
    : await client.responses.create(request);
  const usage = response.usage;
  return {
    id: response.id,
    text: response.output_text,
    finishReason: response.status,
    toolCalls: response.output.filter((item) => item.type === 'function_call').map((item) => ({
      id: item.call_id, name: item.name, arguments: JSON.parse(item.arguments),
    })),
    usage: usage ? usageOf(usage.input_tokens, usage.output_tokens, usage.total_tokens) : null,
  };
}

runCases((options) => {
  const OpenAI = loadPackage(options.nodeModules, 'openai');
  const client = new OpenAI(clientOptions(options));
  return options.api === 'responses' ? responses(client, options) : chat(client, options);
});
