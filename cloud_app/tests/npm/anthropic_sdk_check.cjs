// Sends requests through the official `@anthropic-ai/sdk` and prints what the SDK made of each answer.
// Usage: node anthropic_sdk_check.cjs '[{"nodeModules": ..., "baseURL": ..., "apiKey": ..., "stream": bool,
//         "tools": bool, "maxRetries": n, "timeoutMs": n}, ...]'
// Streams go through the SDK's own stream helper, which checks the event sequence as it builds the message.
'use strict';
const { TOOL_NAME, TOOL_SCHEMA, loadPackage, clientOptions, runCases } = require('./sdk_check_common.cjs');

async function messages(client, options) {
  const request = { model: options.model ?? 'fake-model', max_tokens: 256, messages: [{ role: 'user', content: 'Say hello' }] };
  if (options.tools) request.tools = [{ name: TOOL_NAME, input_schema: TOOL_SCHEMA }];
  const message = options.stream
    ? await client.messages.stream(request).finalMessage()
    : await client.messages.create(request);
  return {
    id: message.id,
    text: message.content.filter((block) => block.type === 'text').map((block) => block.text).join(''),
    finishReason: message.stop_reason,
    toolCalls: message.content.filter((block) => block.type === 'tool_use').map((block) => ({
      id: block.id, name: block.name, arguments: block.input,
    })),
    usage: { input: message.usage.input_tokens, output: message.usage.output_tokens },
  };
}

runCases((options) => {
  const module = loadPackage(options.nodeModules, '@anthropic-ai/sdk');
  const Anthropic = module.default || module.Anthropic || module;
  return messages(new Anthropic(clientOptions(options)), options);
});
