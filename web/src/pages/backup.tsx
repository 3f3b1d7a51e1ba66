// A backup of all settings, keys and rights: made and downloaded, looked into, and restored.
import { useState } from 'preact/hooks'
import { ApiError, data, download, saveFile, SLOW, type Form } from '../api'
import { Fields, useForm, type FieldRow } from '../form'
import { byteLength, bytes, moment } from '../format'
import type { Rule } from '../rules'
import { t, type TextKey } from '../texts'
import { Button, Card, Facts, Failure, Notice, confirm, say, useJob } from '../ui'
import { FileButton } from './clients'

export interface Contents {
  version: string
  host: string
  time: number
  files: number
  bytes: number
  servers: string[]
  profiles: string[]
  devices: string[]
  users: string[]
  parts: string[]
}
export interface Changes {
  changed: string[]
  added: string[]
  removed: string[]
  interrupted: string[]
  warnings: string[]
  same: number
}
interface Inspection {
  contents: Contents
  expected: Changes
}

const LEAST = 8
const MOST = 1024
const LARGEST = 1024 * 1024 // bytes of an upload

export const passphrase: Rule = value =>
  byteLength(value) < LEAST ? 'backup.short' : byteLength(value) > MOST ? 'rule.long' : null

const passphraseRow: FieldRow = {
  name: 'passphrase',
  label: 'backup.passphrase',
  kind: 'password',
  rule: passphrase,
  autocomplete: 'new-password',
}
const newRows: readonly FieldRow[] = [
  { ...passphraseRow, help: 'backup.passphraseHelp' },
  { ...passphraseRow, name: 'again', label: 'backup.again' },
]
const oldRows: readonly FieldRow[] = [{ ...passphraseRow, autocomplete: 'off' }]

// What the program means by a code here; the texts of other pages speak of accounts and profiles.
const WHY: Partial<Record<number, TextKey>> = {
  7: 'backup.damaged',
  8: 'backup.newer',
  15: 'backup.short',
  38: 'backup.wrong',
}
export const whyNot = (failure: unknown): TextKey | null =>
  (failure instanceof ApiError && failure.kind === 'code' && WHY[failure.code]) || null

function Refusal({ failure }: { failure: unknown }) {
  const why = whyNot(failure)
  if (!why) return <Failure failure={failure} />
  return (
    <Notice tone="bad">
      <strong>{t(why)}</strong> <span>{t('backup.unchanged')}</span>
    </Notice>
  )
}

function MakeCard() {
  const form = useForm(newRows, { passphrase: '', again: '' })
  const [differ, setDiffer] = useState(false)
  const job = useJob()
  const make = async (event: Event) => {
    event.preventDefault()
    const same = form.values['passphrase'] === form.values['again']
    setDiffer(!same)
    if (!form.check() || !same) return
    await job.run('make', async () => {
      const given = { passphrase: String(form.values['passphrase']) }
      const file = await download('backup/download', 'backup.ormel', given)
      saveFile(`${location.hostname}-${new Date().toISOString().slice(0, 10)}.ormel`, file.content)
      form.replace({ passphrase: '', again: '' })
      say('backup.made')
    })
  }
  return (
    <Card title={t('backup.make')}>
      <p>{t('backup.makeHelp')}</p>
      <form onSubmit={event => void make(event)} noValidate>
        <Fields rows={newRows} form={form} />
        {differ && <Notice>{t('backup.differ')}</Notice>}
        <Refusal failure={job.failure} />
        <div class="row end">
          <Button kind="primary" icon="download" submit busy={job.busy === 'make'}>
            {t('backup.download')}
          </Button>
        </div>
      </form>
    </Card>
  )
}

const joined = (names: readonly string[]): string => names.join(', ')

// What would differ, or what did: one line for each kind.
export const changeRows = (changes: Changes): (readonly [string, string])[] =>
  (
    [
      ['backup.changed', changes.changed],
      ['backup.added', changes.added],
      ['backup.removed', changes.removed],
      ['backup.interrupted', changes.interrupted],
    ] as const
  ).map(([label, names]) => [t(label), joined(names)])

function Warnings({ changes }: { changes: Changes }) {
  if (changes.warnings.length === 0) return null
  return (
    <Notice>
      <ul>
        {changes.warnings.map(one => (
          <li key={one}>{one}</li>
        ))}
      </ul>
    </Notice>
  )
}

function ContentFacts({ contents }: { contents: Contents }) {
  return (
    <Facts
      rows={[
        [t('backup.host'), contents.host],
        [t('backup.time'), moment(contents.time)],
        [t('backup.version'), contents.version],
        [t('backup.servers'), joined(contents.servers)],
        [t('nav.clients'), joined(contents.profiles)],
        [t('backup.devices'), joined(contents.devices)],
        [t('backup.users'), joined(contents.users)],
        [t('backup.size'), t('backup.files', { n: contents.files, size: bytes(contents.bytes) })],
      ]}
    />
  )
}

function RestoreCard() {
  const form = useForm(oldRows, { passphrase: '' })
  const [file, setFile] = useState<File | null>(null)
  const [found, setFound] = useState<Inspection | null>(null)
  const [result, setResult] = useState<Changes | null>(null)
  const job = useJob()
  const choose = (chosen: File | undefined) => {
    setFile(chosen ?? null)
    setFound(null)
    setResult(null)
  }
  const wire = (): Form => ({
    backup: file ?? undefined,
    passphrase: String(form.values['passphrase']),
  })
  const inspect = async (event: Event) => {
    event.preventDefault()
    if (!form.check() || !file) return
    setFound(null)
    setResult(null)
    await job.run('inspect', async () => {
      setFound(await data<Inspection>('backup/inspect', wire(), SLOW))
    })
  }
  const restore = async () => {
    const agreed = await confirm({
      title: t('backup.restoreTitle'),
      text: t('backup.restoreText'),
      action: t('backup.restore'),
      danger: true,
    })
    if (!agreed) return
    await job.run('restore', async () => {
      setResult(await data<Changes>('backup/restore', wire(), SLOW))
      setFound(null)
      form.replace({ passphrase: '' })
    })
  }
  const tooLarge = file !== null && file.size > LARGEST
  return (
    <Card title={t('backup.restoreCard')}>
      <p>{t('backup.restoreHelp')}</p>
      <form onSubmit={event => void inspect(event)} noValidate>
        <div class="row">
          <FileButton single label={t('backup.choose')} onFiles={([chosen]) => choose(chosen)} />
          {file && <bdi>{file.name}</bdi>}
        </div>
        {tooLarge && <Notice tone="bad">{t('backup.tooLarge')}</Notice>}
        <Fields rows={oldRows} form={form} />
        <Refusal failure={job.failure} />
        <div class="row end">
          <Button submit busy={job.busy === 'inspect'} disabled={!file || tooLarge}>
            {t('backup.inspect')}
          </Button>
        </div>
      </form>
      {found && (
        <section aria-label={t('backup.contents')}>
          <h3>{t('backup.contents')}</h3>
          <ContentFacts contents={found.contents} />
          <h3>{t('backup.expected')}</h3>
          <Facts rows={changeRows(found.expected)} />
          <Warnings changes={found.expected} />
          <div class="row end">
            <Button kind="danger" busy={job.busy === 'restore'} onClick={() => void restore()}>
              {t('backup.restore')}
            </Button>
          </div>
        </section>
      )}
      {result && (
        <section aria-label={t('backup.done')}>
          <Notice tone="good">{t('backup.done')}</Notice>
          <Facts rows={changeRows(result)} />
          <Warnings changes={result} />
        </section>
      )}
    </Card>
  )
}

export const BackupPage = () => (
  <>
    <MakeCard />
    <RestoreCard />
  </>
)
