// Checks the packaged description of the routes with a foreign validator.
import { existsSync, readFileSync } from 'node:fs'
import SwaggerParser from '@apidevtools/swagger-parser'
import { describe, expect, it } from 'vitest'

const place = process.env['ORMEL_OPENAPI'] ?? '../build/release/doc/man/openapi.json'
const read = () => JSON.parse(readFileSync(place, 'utf8')) as Record<string, any>
const valid = (document: Record<string, any>) => SwaggerParser.validate(document as never)

// The build of the program makes it; the interface can be built without.
describe.skipIf(!process.env['ORMEL_OPENAPI'] && !existsSync(place))(
  'the description of the routes',
  () => {
    it('is a document of OpenAPI 3.1', async () => {
      await expect(valid(read())).resolves.toMatchObject({ openapi: '3.1.0' })
    })

    it('would be refused for a route that says nothing', async () => {
      const broken = read()
      broken['paths']['/ormel/config/show'].post.responses = 'none'
      await expect(valid(broken)).rejects.toThrow()
    })

    it('says of each operation who may use it and with what it answers', () => {
      const operations = Object.values(read()['paths']).flatMap(path =>
        Object.values(path as object),
      )
      expect(operations.length).toBeGreaterThan(100)
      for (const one of operations) {
        expect(one['x-least'].session).toMatch(/^(any|administrator)$/)
        expect(one.security[0]).toEqual({ session: [] })
        expect(one.security[1]?.token ?? [null]).toEqual([one['x-least'].token])
        expect(one.responses['200'].content['application/json']).toBeTruthy()
        expect(one.description).not.toBe('')
      }
    })
  },
)
